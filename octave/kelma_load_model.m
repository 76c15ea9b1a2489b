function model = kelma_load_model (path)
% KELMA_LOAD_MODEL  A printer model from a kelma model file (.kelma), read by
% the kelma library itself.
%
%   model = kelma_load_model (path)
%
%   model.grid, model.ramps, model.scheme, model.n
%                  single arrays for kelma_predict (G x N, 256 x N, column, scalar)
%   model.ink_names        1 x N cell of ink names
%   model.observer         2 or 10 (0: unknown); model.illuminants: cell of names
%   model.chart, model.fit_method, model.fit_patches, model.fit_error_de2000
%                          where the model came from, when recorded
%
% A damaged, truncated, foreign or newer file raises kelma:model:file with a
% message that names the file and what is wrong.

  if (nargin != 1)
    error ("kelma:model:usage", "kelma_load_model: expected one argument, the model file's path");
  end
  if (! ischar (path) || rows (path) > 1 || isempty (path))
    error ("kelma:model:usage", "kelma_load_model: the path must be a non-empty character row");
  end
  model = kelma_model_mex ("read", path);
  if (! isempty (model.ramp_weights))
    warning ("kelma:model:lookup", ...
             "kelma_load_model: %s keeps a lookup table built from float64 ramps; kelma_predict rebuilds it from the single ramps, so its spectra can differ from the library's in the last bit", path);
  end
end
