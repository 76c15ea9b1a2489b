function out = kelma_colorimetry_call (op, caller, varargin)
% KELMA_COLORIMETRY_CALL  Shared argument handling of kelma_predict_lab and
% kelma_predict_xyz (not for direct use): their arguments, model, inks, then
% name/value options.
  if (numel (varargin) < 2)
    error ("kelma:nargin", "%s: expected a model and inks, then name/value options", caller);
  end
  model = varargin{1};
  inks = varargin{2};
  opts = kelma_options (caller, varargin(3:end), struct ("illuminant", "D50", "observer", 2, "relative", "illuminant"));
  if (! any (strcmp (opts.relative, {"illuminant", "paper"})))
    error ("kelma:argument", "%s: relative must be ""illuminant"" or ""paper"", got ""%s""", caller, opts.relative);
  end
  m = kelma_model_fields (caller, model);
  out = kelma_checked_mex (op, m.grid, m.ramps, m.scheme, m.n, inks, opts.illuminant, opts.observer,
                           strcmp (opts.relative, "paper"));
end
