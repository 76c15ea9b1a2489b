function xyz = kelma_predict_xyz (varargin)
% KELMA_PREDICT_XYZ  CIE XYZ (double; the perfect reflector has Y = 1) of ink
% combinations predicted with a printer model.
%
%   xyz = kelma_predict_xyz (model, inks)
%   xyz = kelma_predict_xyz (model, inks, "illuminant", "A", "relative", "paper")
%
% Arguments and options as kelma_predict_lab; xyz is double, 3 x count.
% Relative to the paper, the paper has the XYZ of the perfect reflector.
  xyz = kelma_colorimetry_call ("xyz", "kelma_predict_xyz", varargin{:});
end
