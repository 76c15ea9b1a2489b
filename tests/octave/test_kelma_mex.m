function test_kelma_mex (fixture_dir, readme)
% The MEX file in a real host: predictions equal the C++ front end's bit for
% bit, library failures become catchable Octave errors, and the checked
% front end rejects every malformed argument with its own identifier.
  passed = 0;
  failed = 0;

  function check (ok, what)
    if (ok)
      passed++;
    else
      failed++;
      printf ("FAILED: %s\n", what);
    end
  end

  function expect_error (f, id, what)
    try
      f ();
      check (false, [what " (no error raised)"]);
    catch err
      check (strcmp (err.identifier, id), sprintf ("%s: identifier %s, expected %s (%s)", what, err.identifier, id, err.message));
    end
  end

  % Users reach the gateway only through the checked front ends.
  check (isempty (which ("kelma_mex")), "the raw gateway is private");

  for N = [4 6 7]
    p = fullfile (fixture_dir, sprintf ("ink%d_", N));
    meta = read_raw ([p "meta.u32"], "uint32=>double");
    G = meta(1); count = meta(3);
    grid = reshape (read_raw ([p "grid.f32"], "single=>single"), G, N);
    ramps = reshape (read_raw ([p "ramps.f32"], "single=>single"), 256, N);
    scheme = read_raw ([p "scheme.f32"], "single=>single");
    n = read_raw ([p "n.f32"], "single=>single");
    inks = reshape (read_raw ([p "inks.u8"], "uint8=>uint8"), N, count);
    expected = reshape (read_raw ([p "expected.f32"], "single=>single"), 32, count);

    out = raw_mex (grid, ramps, scheme, n, inks);
    check (isa (out, "single"), sprintf ("%d inks: class single", N));
    check (isequal (size (out), [32 count]), sprintf ("%d inks: size 32 x count", N));
    check (all (out(32,:) == 0), sprintf ("%d inks: row 32 is 0", N));
    check (isequal (typecast (out(:), "uint32"), typecast (expected(:), "uint32")), sprintf ("%d inks: bit-identical to the C++ front end", N));
    checked = kelma_predict (grid, ramps, scheme, n, inks);
    check (isequal (typecast (checked(:), "uint32"), typecast (expected(:), "uint32")), sprintf ("%d inks: kelma_predict equals kelma_mex", N));
    if (N == 4)
      g4 = grid; r4 = ramps; s4 = scheme; n4 = n; i4 = inks;
    end
  end

  % The embedded press model, loaded in Octave, predicts what the library predicts.
  press = kelma_default_model ();
  check (isequal (size (press.grid), [3 4]) && isa (press.scheme, "single"), "press model arrays");
  press_inks = reshape (read_raw (fullfile (fixture_dir, "press_inks.u8"), "uint8=>uint8"), 4, 81);
  press_expected = reshape (read_raw (fullfile (fixture_dir, "press_expected.f32"), "single=>single"), 32, 81);
  got = kelma_predict (press.grid, press.ramps, press.scheme, press.n, press_inks);
  check (isequal (typecast (got(:), "uint32"), typecast (press_expected(:), "uint32")), "press model: bit-identical to the library");
  expect_error (@() kelma_default_model ("/nonexistent/model.kelma"), "kelma:model:file", "missing model file");

  % Failures inside the library: Octave survives and can catch them.
  for N = [3 5]
    grid = single (repmat ([0; 255], 1, N));
    ramps = single (repmat ((0:255)' / 255, 1, N));
    scheme = single (ones (31 * 2 ^ N, 1) * 0.8);
    try
      raw_mex (grid, ramps, scheme, single (2), zeros (N, 3, "uint8"));
      check (false, sprintf ("%d inks: no error raised", N));
    catch err
      % The library's text, explained.
      check (! isempty (strfind (err.message, '(library error "DefaultCase")')) && strcmp (err.identifier, "kelma:library:argument"), ...
             sprintf ("%d inks: got '%s' (%s)", N, err.message, err.identifier));
    end
  end
  after = raw_mex (g4, r4, s4, n4, i4(:, 1:3));
  check (isequal (size (after), [32 3]), "the session goes on after a library error");

  % The checked front end: the library checks the model, Octave survives.
  expect_error (@() kelma_predict (g4, r4, s4, n4), "kelma:nargin", "4 arguments");
  expect_error (@() kelma_predict (double (g4), r4, s4, n4, i4), "kelma:class", "double grid");
  expect_error (@() kelma_predict (g4, r4, s4, n4, double (i4)), "kelma:class", "double inks");
  expect_error (@() kelma_predict (g4, r4, s4, 2, i4), "kelma:class", "double n");
  expect_error (@() kelma_predict (g4, r4(1:255,:), s4, n4, i4), "kelma:size", "short ramps");
  expect_error (@() kelma_predict (g4, r4, s4(1:end-1), n4, i4), "kelma:model", "short scheme");
  expect_error (@() kelma_predict (g4, r4, s4, single (NaN), i4), "kelma:model", "NaN n");
  expect_error (@() kelma_predict (g4, r4, s4, single (-1), i4), "kelma:model", "negative n");
  expect_error (@() kelma_predict (g4, r4, s4, single ([2 2]), i4), "kelma:size", "vector n");
  expect_error (@() kelma_predict (g4, r4, s4, n4, i4(1:3,:)), "kelma:size", "3 x count inks");
  expect_error (@() kelma_predict (g4, r4, s4, n4, zeros (4, 0, "uint8")), "kelma:empty", "empty batch");
  expect_error (@() kelma_predict (g4(:, 1:3), r4(:, 1:3), s4, n4, i4(1:3,:)), "kelma:model", "3 inks");
  bad = g4; bad(2, 1) = bad(3, 1);
  expect_error (@() kelma_predict (bad, r4, s4, n4, i4), "kelma:model", "grid not ascending");
  bad = g4; bad(1, 2) = 1;
  expect_error (@() kelma_predict (bad, r4, s4, n4, i4), "kelma:model", "grid not starting at 0");
  bad = g4; bad(end, 3) = 254;
  expect_error (@() kelma_predict (bad, r4, s4, n4, i4), "kelma:model", "grid not ending at 255");
  bad = g4; bad(2, 1) = bad(2, 1) + 0.5;
  expect_error (@() kelma_predict (bad, r4, s4, n4, i4), "kelma:model", "fractional grid level");
  bad = r4; bad(100, 2) = NaN;
  expect_error (@() kelma_predict (g4, bad, s4, n4, i4), "kelma:model", "NaN ramp");
  bad = r4; bad(100, 2) = bad(99, 2) - 0.2;
  expect_error (@() kelma_predict (g4, bad, s4, n4, i4), "kelma:model", "ramp falling inside a cell");
  bad = s4; bad(3) = NaN;
  expect_error (@() kelma_predict (g4, r4, bad, n4, i4), "kelma:model", "NaN coefficient");
  bad = s4; bad(1) = -1;
  expect_error (@() kelma_predict (g4, r4, bad, n4, i4), "kelma:model", "negative corner sum");
  expect_error (@() kelma_predict (g4, r4, s4, n4, {1}), "kelma:class", "cell inks");

  % Float colorimetry: CIELAB is the exact CIE 15 CIELAB of the XYZ, against
  % the white of a perfect reflector (the XYZ of the paper, paper-relative).
  press = kelma_default_model ();
  samples = uint8 ([0 0 0 0; 255 0 0 0; 0 0 0 255; 30 200 90 10; 128 128 128 128]');
  for ill = {"D50", "D65", "A"}
    xyz = kelma_predict_xyz (press, samples, "illuminant", ill{1}, "observer", 10);
    lab = kelma_predict_lab (press, samples, "illuminant", ill{1}, "observer", 10);
    rel_xyz = kelma_predict_xyz (press, samples, "illuminant", ill{1}, "observer", 10, "relative", "paper");
    rel_lab = kelma_predict_lab (press, samples, "illuminant", ill{1}, "observer", 10, "relative", "paper");
    white = rel_xyz(:, 1);   % the paper mapped onto the perfect white (to float rounding)
    check (isa (lab, "double") && isequal (size (lab), [3 5]), [ill{1} ": lab is double 3 x count"]);
    check (abs (rel_xyz(2, 1) - 1) < 1e-6, [ill{1} ": paper-relative paper has Y = 1"]);
    check (max (abs (rel_lab(:, 1) - [100; 0; 0])) < 2e-4, [ill{1} ": paper-relative paper is L* 100"]);
    check (max (max (abs (exact_lab (rel_xyz, white) - rel_lab))) < 1e-3, [ill{1} ": paper-relative CIELAB"]);
    check (max (max (abs (exact_lab (xyz, white) - lab))) < 1e-3, [ill{1} ": CIELAB of the XYZ"]);
    check (lab(1, 1) < 99 && lab(1, 3) < 30, [ill{1} ": paper below the perfect white, black dark"]);
  end
  expect_error (@() kelma_predict_lab (press, samples, "illuminant", "D70"), "kelma:argument", "unknown illuminant");
  expect_error (@() kelma_predict_lab (press, samples, "observer", 5), "kelma:argument", "observer 5");
  expect_error (@() kelma_predict_lab (press, samples, "relative", "ink"), "kelma:argument", "relative ink");
  expect_error (@() kelma_predict_lab (press, samples, "tint"), "kelma:argument", "odd options");
  expect_error (@() kelma_predict_lab (press, double (samples)), "kelma:class", "double inks");
  expect_error (@() kelma_predict_lab (press, samples(1:3, :)), "kelma:size", "3 x count inks");
  expect_error (@() kelma_predict_lab (rmfield (press, "n"), samples), "kelma:argument", "model without n");
  expect_error (@() kelma_predict_lab (press), "kelma:nargin", "kelma_predict_lab without inks");
  expect_error (@() kelma_predict_lab (), "kelma:nargin", "kelma_predict_lab without arguments");
  expect_error (@() kelma_predict_xyz (press), "kelma:nargin", "kelma_predict_xyz without inks");
  expect_error (@() kelma_predict_xyz (), "kelma:nargin", "kelma_predict_xyz without arguments");
  broken = press;
  broken.ramps(40, 2) = broken.ramps(39, 2) - 0.1;
  expect_error (@() kelma_predict_lab (broken, samples), "kelma:model", "falling ramp");
  broken = press;
  broken.scheme(1) = -1;
  expect_error (@() kelma_predict_xyz (broken, samples), "kelma:model", "negative corner");
  % A paper that reflects 1e-30: paper-relative colours would overflow.
  dark = struct ("grid", single (repmat ([0; 255], 1, 4)), "ramps", single (repmat ((0:255)' / 255, 1, 4)), ...
                 "scheme", single (zeros (31 * 16, 1)), "n", single (2));
  dark.scheme(1:16:end) = sqrt (1e-30);
  dark.scheme(2:16:end) = 0.9;
  try
    kelma_predict_lab (dark, zeros (4, 2, "uint8"), "relative", "paper");
    check (false, "dark paper: no error raised");
  catch err
    check (strcmp (err.identifier, "kelma:model") && ! isempty (strfind (err.message, "the paper's X is")), ...
           sprintf ("dark paper: got '%s' (%s)", err.message, err.identifier));
  end
  expect_error (@() kelma_evaluate (press, "/nonexistent/chart.txt"), "kelma:chart", "missing chart");
  % A chart whose device value is no percentage (150 % cyan) is refused, not
  % compared with the prediction of another ink amount.
  percent_chart = [tempname() ".txt"];
  fid = fopen (percent_chart, "w");
  fprintf (fid, "CGATS.17\nNUMBER_OF_FIELDS 36\nBEGIN_DATA_FORMAT\nSAMPLE_ID CMYK_C CMYK_M CMYK_Y CMYK_K");
  fprintf (fid, " SPECTRAL_NM%d", 400:10:700);
  fprintf (fid, "\nEND_DATA_FORMAT\nNUMBER_OF_SETS 2\nBEGIN_DATA\n1 0 0 0 0");
  fprintf (fid, " %g", 0.8 * ones (1, 31));
  fprintf (fid, "\n2 150 0 0 0");
  fprintf (fid, " %g", 0.3 * ones (1, 31));
  fprintf (fid, "\nEND_DATA\n");
  fclose (fid);
  try
    kelma_evaluate (press, percent_chart);
    check (false, "device value 150 %: no error raised");
  catch err
    check (strcmp (err.identifier, "kelma:chart") && ! isempty (strfind (err.message, "150")), ...
           sprintf ("device value 150 %%: got '%s' (%s)", err.message, err.identifier));
  end
  delete (percent_chart);

  % Every bad chart of the reader's table, and paths that are no chart file:
  % a kelma:chart error naming the file and, where the file has device
  % channels, the fault itself.
  data_dir = fullfile (fileparts (readme), "tests", "measurement", "data");
  fid = fopen (fullfile (data_dir, "bad_files.tsv"), "r");
  table_rows = 0;
  while (true)
    line = fgetl (fid);
    if (! ischar (line))
      break;
    end
    if (isempty (line) || line(1) == "#")
      continue;
    end
    f = strsplit (line, "\t");
    table_rows++;
    path = fullfile (data_dir, f{1});
    expect_error (@() kelma_evaluate (press, path), "kelma:chart", f{1});
    try
      kelma_evaluate (press, path);
    catch err
      check (! isempty (strfind (err.message, path)), [f{1} ": the message names the file"]);
      check (f{3} == "n" || ! isempty (strfind (err.message, f{4})), [f{1} ": " err.message]);
    end
  end
  fclose (fid);
  check (table_rows >= 27, "the table of bad charts was read");
  special = {data_dir, "is a directory"; "/dev/zero", "is not a regular file"};
  for k = 1:rows (special)
    try
      kelma_evaluate (press, special{k, 1});
      check (false, [special{k, 1} " (no error raised)"]);
    catch err
      check (strcmp (err.identifier, "kelma:chart") && ! isempty (strfind (err.message, special{k, 2})), err.message);
    end
  end

  % The README's Octave example runs as written.
  text = fileread (readme);
  blocks = regexp (text, '```octave\n(.*?)```', "tokens");
  check (! isempty (blocks), "the README has an Octave example");
  for b = 1:numel (blocks)
    try
      run_readme_block (blocks{b}{1});
      check (true, "README example");
    catch err
      check (false, ["README example: " err.message]);
    end
  end

  printf ("%d passed, %d failed\n", passed, failed);
  if (failed > 0)
    exit (1);
  end
end

% The raw gateway lives in private/: called from there, as the tests of its
% unchecked contract need.
function out = raw_mex (varargin)
  here = pwd ();
  cd (fullfile (fileparts (which ("kelma_predict")), "private"));
  unwind_protect
    out = kelma_mex (varargin{:});
  unwind_protect_cleanup
    cd (here);
  end_unwind_protect
end

function lab = exact_lab (xyz, white)
  t = xyz ./ white;
  f = ifelse_ (t > 216 / 24389, nthroot (t, 3), (24389 / 27 * t + 16) / 116);
  lab = [116 * f(2, :) - 16; 500 * (f(1, :) - f(2, :)); 200 * (f(2, :) - f(3, :))];
end

function r = ifelse_ (c, a, b)
  r = b;
  r(c) = a(c);
end

function v = read_raw (path, precision)
  fid = fopen (path, "rb");
  if (fid < 0)
    error ("cannot open %s", path);
  end
  v = fread (fid, Inf, precision);
  fclose (fid);
end
