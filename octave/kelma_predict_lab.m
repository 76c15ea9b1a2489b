function lab = kelma_predict_lab (varargin)
% KELMA_PREDICT_LAB  CIELAB (double, exact CIE 15 constants) of ink
% combinations predicted with a printer model.
%
%   lab = kelma_predict_lab (model, inks)
%   lab = kelma_predict_lab (model, inks, "illuminant", "D65", "observer", 10, "relative", "paper")
%
%   model   struct with fields grid, ramps, scheme, n (as kelma_default_model
%           returns them; single arrays)
%   inks    uint8, N x count: one sample per column
%   lab     double, 3 x count: L*, a*, b* per column
%
% Options: illuminant A, D50 (default), D65, E, F1, F2, F11; observer 2
% (default) or 10; relative "illuminant" (default: against the perfect
% white) or "paper" (the paper is L* 100, a* = b* = 0).
  lab = kelma_colorimetry_call ("lab", "kelma_predict_lab", varargin{:});
end
