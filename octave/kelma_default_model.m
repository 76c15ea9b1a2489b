function model = kelma_default_model (path)
% KELMA_DEFAULT_MODEL  The embedded press model (APTEC PC10 sheet-fed offset,
% CMYK, grid {0, 40, 100} %) as the arrays kelma_predict takes.
%
%   model = kelma_default_model ()
%   model = kelma_default_model (path)   % another model file of the same format
%
%   model.grid    single G x N digital levels
%   model.ramps   single 256 x N effective coverages
%   model.scheme  single column, 31*(G-1)^N*2^N coefficients
%   model.n       single Yule-Nielsen exponent
%
% The model file (aptec_pc10_cmyk.txt) sits beside this function.

  if (nargin < 1)
    path = fullfile (fileparts (mfilename ("fullpath")), "aptec_pc10_cmyk.txt");
  end
  fid = fopen (path, "r");
  if (fid < 0)
    error ("kelma:model:open", "kelma_default_model: cannot open %s", path);
  end
  text = fread (fid, Inf, "char=>char")';
  fclose (fid);
  lines = strsplit (text, "\n");
  lines = lines(! cellfun (@(l) isempty (strtrim (l)) || l(1) == "#", lines));

  N = value_of (lines, "INKS", path);
  G = value_of (lines, "GRID_POINTS", path);
  n = value_of (lines, "N", path);
  grid = section (lines, "GRID_LEVELS", path);
  ramps = section (lines, "EFFECTIVE_RAMPS", path);
  scheme = section (lines, "MATRIX_SCHEME", path);
  if (numel (grid) != N * G || numel (ramps) != N * 256 || numel (scheme) != 31 * (G - 1) ^ N * 2 ^ N)
    error ("kelma:model:format", "kelma_default_model: %s has arrays of the wrong size", path);
  end
  % The file lists each ink's values contiguously, as the columns here.
  model.grid = single (reshape (grid, G, N));
  model.ramps = single (reshape (ramps, 256, N));
  model.scheme = single (scheme(:));
  model.n = single (n);
end

function v = value_of (lines, key, path)
  hit = find (strncmp (lines, [key " "], numel (key) + 1), 1);
  if (isempty (hit))
    error ("kelma:model:format", "kelma_default_model: %s has no %s line", path, key);
  end
  v = str2double (strtrim (lines{hit}(numel (key) + 2:end)));
end

function values = section (lines, key, path)
  keys = {"GRID_LEVELS", "EFFECTIVE_RAMPS", "MATRIX_SCHEME"};
  first = find (strcmp (strtrim (lines), key), 1);
  if (isempty (first))
    error ("kelma:model:format", "kelma_default_model: %s has no %s section", path, key);
  end
  last = numel (lines);
  for k = first + 1:numel (lines)
    if (any (strcmp (strtrim (lines{k}), keys)))
      last = k - 1;
      break;
    end
  end
  values = sscanf (strjoin (lines(first + 1:last), " "), "%f");
end
