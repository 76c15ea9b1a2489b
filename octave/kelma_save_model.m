function kelma_save_model (path, model)
% KELMA_SAVE_MODEL  Writes a printer model as a kelma model file, through the
% kelma library (written to a temporary file beside PATH, then renamed).
%
%   kelma_save_model (path, model)
%
%   model.grid, model.ramps, model.scheme, model.n   required, one class:
%        single writes a float32 file, double a float64 file
%   every other field of kelma_load_model's struct is optional (ink names
%   "ink 1", ..., observer 2, illuminant D50 by default)
%
% Errors: kelma:model:invalid names the field that no model file may hold,
% kelma:model:write the file that cannot be written.

  if (nargin != 2)
    error ("kelma:model:usage", "kelma_save_model: expected two arguments, the path and the model struct");
  end
  if (! ischar (path) || rows (path) > 1 || isempty (path))
    error ("kelma:model:usage", "kelma_save_model: the path must be a non-empty character row");
  end
  kelma_model_mex ("write", path, model);
end
