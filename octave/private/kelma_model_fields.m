function m = kelma_model_fields (caller, model)
% KELMA_MODEL_FIELDS  The model struct's arrays (not for direct use): a struct
% with fields grid, ramps, scheme and n, as kelma_default_model returns.
  if (! isstruct (model) || ! isscalar (model) || ! all (isfield (model, {"grid", "ramps", "scheme", "n"})))
    error ("kelma:argument", "%s: model must be a struct with fields grid, ramps, scheme and n (see kelma_default_model)", caller);
  end
  m = model;
end
