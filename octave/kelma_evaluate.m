function [stats, delta_e] = kelma_evaluate (model, chart, varargin)
% KELMA_EVALUATE  CIEDE2000 of a model against a measured chart.
%
%   stats = kelma_evaluate (model, "chart.txt")
%   [stats, delta_e] = kelma_evaluate (model, "chart.txt", "illuminant", "D65", "observer", 10)
%
%   model    struct with fields grid, ramps, scheme, n (kelma_default_model)
%   chart    CGATS file with device values in percent and spectra
%   stats    struct with fields all, k_zero, k_positive, each a struct
%            count, mean, median, p95, max (K = ink 4)
%   delta_e  double column, one difference per patch, in file order
%
% The differences are the library's: the chart's spectra and the model's
% prediction at the patches' digital levels, relative to the illuminant.
  if (nargin < 2)
    error ("kelma:nargin", "kelma_evaluate: expected a model and a chart file");
  end
  if (! ischar (chart) || isempty (chart))
    error ("kelma:argument", "kelma_evaluate: chart must be the name of a CGATS file");
  end
  opts = kelma_options ("kelma_evaluate", varargin, struct ("illuminant", "D50", "observer", 2));
  m = kelma_model_fields ("kelma_evaluate", model);
  [s, delta_e] = kelma_checked_mex ("evaluate", m.grid, m.ramps, m.scheme, m.n, chart, opts.illuminant, opts.observer);
  names = {"all", "k_zero", "k_positive"};
  for c = 1:3
    stats.(names{c}) = struct ("count", s(1, c), "mean", s(2, c), "median", s(3, c), "p95", s(4, c), "max", s(5, c));
  end
end
