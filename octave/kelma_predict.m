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
% Every argument is checked here; the MEX gateway kelma_mex itself reads
% its inputs as they are. Errors carry identifiers kelma:predict:*.

  if (nargin != 5)
    error ("kelma:predict:nargin", "kelma_predict: expected 5 arguments (grid, ramps, scheme, n, inks), got %d", nargin);
  end
  check_class (grid, "single", "grid");
  check_class (ramps, "single", "ramps");
  check_class (scheme, "single", "scheme");
  check_class (n, "single", "n");
  check_class (inks, "uint8", "inks");

  if (ndims (grid) != 2 || isempty (grid))
    error ("kelma:predict:size", "kelma_predict: grid must be a G x N matrix");
  end
  [G, N] = size (grid);
  if (! any (N == [4 6 7]))
    error ("kelma:predict:inks", "kelma_predict: the number of inks (columns of grid) must be 4, 6 or 7, got %d", N);
  end
  if (G < 2)
    error ("kelma:predict:size", "kelma_predict: grid needs at least 2 levels per ink, got %d", G);
  end
  if (any (! isfinite (grid(:))) || any (grid(:) != round (grid(:))))
    error ("kelma:predict:grid", "kelma_predict: grid levels must be whole numbers");
  end
  if (any (grid(1,:) != 0) || any (grid(end,:) != 255))
    error ("kelma:predict:grid", "kelma_predict: every ink's grid must start at 0 and end at 255");
  end
  if (any (any (diff (grid, 1, 1) <= 0)))
    error ("kelma:predict:grid", "kelma_predict: every ink's grid levels must be strictly ascending");
  end
  if (! isequal (size (ramps), [256, N]))
    error ("kelma:predict:size", "kelma_predict: ramps must be 256 x %d, got %s", N, mat2str (size (ramps)));
  end
  if (any (! isfinite (ramps(:))))
    error ("kelma:predict:ramps", "kelma_predict: ramps must be finite");
  end
  expected = 31 * (G - 1) ^ N * 2 ^ N;
  if (numel (scheme) != expected)
    error ("kelma:predict:size", "kelma_predict: scheme must hold 31*(G-1)^N*2^N = %d values, got %d", expected, numel (scheme));
  end
  if (numel (n) != 1 || ! isfinite (n) || n <= 0)
    error ("kelma:predict:n", "kelma_predict: n must be a finite positive scalar");
  end
  if (ndims (inks) != 2 || rows (inks) != N)
    error ("kelma:predict:size", "kelma_predict: inks must be %d x count (one sample per column), got %s", N, mat2str (size (inks)));
  end
  if (columns (inks) < 1)
    error ("kelma:predict:empty", "kelma_predict: inks holds no sample");
  end

  spectra = kelma_mex (grid, ramps, scheme, n, inks);
end

function check_class (value, expected, name)
  if (! isa (value, expected) || ! isreal (value) || issparse (value))
    error ("kelma:predict:class", "kelma_predict: %s must be a real %s array, got %s", name, expected, class (value));
  end
end
