function test_kelma_model (fixture_dir, shipped_model)
% Model files in Octave, through the library's own reader and writer: the
% shipped file is the embedded model, a model saved from Octave reads back
% exactly, damaged files and bad structs raise errors that name the file or
% the field, and kelma_version reports the library's version.
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

  function msg = expect_error (f, id, what)
    msg = "";
    try
      f ();
      check (false, [what " (no error raised)"]);
    catch err
      msg = err.message;
      check (strcmp (err.identifier, id), sprintf ("%s: identifier %s, expected %s (%s)", what, err.identifier, id, err.message));
    end
  end

  function same = same_bits (a, b)
    same = isequal (class (a), class (b)) && isequal (size (a), size (b)) ...
           && isequal (typecast (a(:), "uint32"), typecast (b(:), "uint32"));
  end

  % Version: the library's, one number for every front end.
  expected_version = strtrim (fileread (fullfile (fixture_dir, "version.txt")));
  check (strcmp (kelma_version (), expected_version), sprintf ("kelma_version %s, expected %s", kelma_version (), expected_version));

  % The shipped file and the embedded model are the same model.
  shipped = kelma_load_model (shipped_model);
  embedded = kelma_default_model ();
  for f = {"grid", "ramps", "scheme", "n"}
    check (same_bits (shipped.(f{1}), embedded.(f{1})), ["shipped file = embedded model: " f{1}]);
  end
  check (isequal (shipped.ink_names, {"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"}), "ink names");
  check (isequal (shipped.illuminants, {"D50"}) && shipped.observer == 2, "colorimetry");
  check (strcmp (shipped.fit_method, "refined") && shipped.fit_patches == 1617 && numel (shipped.fit_error_de2000) == 3, "provenance");
  check (strcmp (shipped.precision, "float64") && isa (shipped.scheme, "single"), "precision and classes");
  check (isequal (size (shipped.grid), [3 4]) && isequal (size (shipped.ramps), [256 4]), "shapes");

  % Saved from Octave, read back: singles give a float32 file, exact.
  m = embedded;
  m.ink_names = {"C", "M", "Y", "K"};
  m.illuminants = {"D65", "A"};
  m.illuminant_data = {[], []};
  m.observer = 10;
  m.chart = "octave chart";
  path = fullfile (fixture_dir, "octave.kelma");
  kelma_save_model (path, m);
  back = kelma_load_model (path);
  for f = {"grid", "ramps", "scheme", "n"}
    check (same_bits (back.(f{1}), m.(f{1})), ["round trip: " f{1}]);
  end
  check (strcmp (back.precision, "float32") && isequal (back.ink_names, m.ink_names), "round trip: precision, names");
  check (isequal (back.illuminants, {"D65", "A"}) && back.observer == 10 && strcmp (back.chart, "octave chart"), "round trip: description");
  % Doubles give a float64 file.
  d = struct ("grid", double (m.grid), "ramps", double (m.ramps), "scheme", double (m.scheme) + 1e-12, "n", double (m.n));
  kelma_save_model (path, d);
  check (strcmp (kelma_load_model (path).precision, "float64"), "double arrays write float64");

  % Damage and bad content: errors name the file or the field.
  text = fileread (shipped_model);
  cut = fullfile (fixture_dir, "cut.kelma");
  fid = fopen (cut, "w"); fputs (fid, text(1:floor (end / 2))); fclose (fid);
  msg = expect_error (@() kelma_load_model (cut), "kelma:model:file", "truncated file");
  check (! isempty (strfind (msg, "cut.kelma")) && ! isempty (strfind (msg, "truncated")), ["truncated file message: " msg]);
  msg = expect_error (@() kelma_load_model (fullfile (fixture_dir, "ink4_grid.f32")), "kelma:model:file", "foreign file");
  check (! isempty (strfind (msg, "ink4_grid.f32")), ["foreign file message: " msg]);
  bad = m; bad.grid(2, 1) = bad.grid(3, 1);
  msg = expect_error (@() kelma_save_model (path, bad), "kelma:model:invalid", "grid not ascending");
  check (! isempty (strfind (msg, "strictly ascending")), ["invalid field message: " msg]);
  bad = m; bad.ink_names = {"C", "M"};
  expect_error (@() kelma_save_model (path, bad), "kelma:model:invalid", "too few ink names");
  bad = m; bad.n = double (bad.n);
  expect_error (@() kelma_save_model (path, bad), "kelma:model:usage", "mixed classes");
  expect_error (@() kelma_save_model (path, rmfield (m, "scheme")), "kelma:model:usage", "no scheme");
  expect_error (@() kelma_save_model (fullfile (fixture_dir, "missing", "m.kelma"), m), "kelma:model:write", "missing folder");
  expect_error (@() kelma_load_model (), "kelma:model:usage", "no path");

  % A table from float64 ramps cannot travel through kelma_predict: a warning says so.
  warning ("error", "kelma:model:lookup");
  expect_error (@() kelma_load_model (fullfile (fixture_dir, "lut64.kelma")), "kelma:model:lookup", "lookup-table warning");
  warning ("on", "kelma:model:lookup");

  printf ("%d passed, %d failed\n", passed, failed);
  if (failed > 0)
    exit (1);
  end
end
