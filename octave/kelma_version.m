function v = kelma_version ()
% KELMA_VERSION  The version of the kelma library these Octave files load
% ("major.minor.patch"), the same number as kelma.__version__ in Python and
% kelma --version.
%
%   v = kelma_version ()

  v = kelma_model_mex ("version");
end
