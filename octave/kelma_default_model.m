function model = kelma_default_model (path)
% KELMA_DEFAULT_MODEL  The embedded press model (APTEC PC10 sheet-fed offset,
% CMYK, grid {0, 40, 100} %), taken from the kelma library itself.
%
%   model = kelma_default_model ()
%   model = kelma_default_model (path)   % the same as kelma_load_model (path)
%
%   model.grid    single G x N digital levels
%   model.ramps   single 256 x N effective coverages
%   model.scheme  single column, 31*(G-1)^N*2^N coefficients
%   model.n       single Yule-Nielsen exponent
% and the other fields of kelma_load_model (ink names, observer,
% illuminants, provenance).

  if (nargin < 1)
    model = kelma_model_mex ("default");
  else
    model = kelma_load_model (path);
  end
end
