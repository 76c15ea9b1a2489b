function spectra = kelma_predict (grid, ramps, scheme, n, inks)
% KELMA_PREDICT  Spectral reflectance of ink combinations with a cellular
% Yule-Nielsen modified spectral Neugebauer model (4, 6 or 7 inks).
%
%   spectra = kelma_predict (grid, ramps, scheme, n, inks)
%
%   grid    single, G x N: per ink the digital levels (whole numbers,
%           strictly ascending, first 0, last 255) that divide its axis
%   ramps   single, 256 x N: effective coverage of each ink at 0..255
%   scheme  single, 31*(G-1)^N*2^N cell coefficients (cell-major, then
%           wavelength, then corner)
%   n       single scalar, finite and positive: Yule-Nielsen exponent
%   inks    uint8, N x count (count >= 1): one sample per column
%   spectra single, 32 x count: reflectance at 400:10:700 nm in rows 1-31,
%           row 32 is 0
%
% Every argument is checked, the model by the library's own check (grid,
% ramps, coefficients, n, and that no ink combination can predict NaN),
% before anything runs; a problem raises one error whose identifier says
% its kind (kelma:class, kelma:size, kelma:model, kelma:empty, kelma:nargin).
% The raw gateway kelma_mex, which reads its arrays unchecked, sits in
% private/ beside this file and is not meant to be called directly.

  if (nargin != 5)
    error ("kelma:nargin", "kelma_predict: expected 5 arguments (grid, ramps, scheme, n, inks), got %d", nargin);
  end
  spectra = kelma_checked_mex ("spectra", grid, ramps, scheme, n, inks);
end
