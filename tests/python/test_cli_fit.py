"""kelma fit's options for what the library's fitting can do: the fine-grid
fit and its prior, estimated nodes, per-ink grids; one clear error each."""
import numpy as np
import pytest

import kelma
from test_cli import CHART, failed_cleanly, predicted, run


def test_fine_grid_fit_reports_its_prior_and_predicts_the_chart(tmp_path):
    model = tmp_path / "fine.kelma"
    r = run("fit", CHART, "--grid", "0,40,70,100", "--fine-base", "0,40,100", "--out", model)
    assert r.returncode == 0, r.stderr
    assert "fine-grid prior:" in r.stdout and "91 grid nodes without a patch" in r.stdout
    m = kelma.ModelFile.read(model)
    np.testing.assert_array_equal(m.grid, np.tile([0, 102, 179, 255], (4, 1)))
    assert m.description.startswith("kelma fit --grid 0,40,70,100 --method refined --fine-base 0,40,100 (prior ")
    fixed = run("fit", CHART, "--grid", "0,40,70,100", "--fine-base", "0,40,100", "--fine-prior", "2",
                "--method", "classic", "--out", tmp_path / "fixed.kelma")
    assert fixed.returncode == 0, fixed.stderr
    assert "fine-grid prior: 2 patches per node" in fixed.stdout
    inks = tmp_path / "inks.csv"
    inks.write_text("0,0,0,0\n70,40,0,0\n20,20,20,60\n")
    mine = predicted(run("predict", inks, "--model", model).stdout)
    embedded = predicted(run("predict", inks).stdout)
    assert np.abs(mine - embedded).max() < 1.0


def test_estimated_nodes_and_per_ink_grids(tmp_path):
    r = run("fit", CHART, "--grid", "0,40,70,100", "--estimate-missing", "--coarse-grid", "0,40,100",
            "--method", "classic", "--out", tmp_path / "est.kelma")
    assert r.returncode == 0, r.stderr
    assert "91 grid nodes without a patch: estimated" in r.stdout
    r = run("fit", CHART, "--grid", "0,40,100;0,40,100;0,40,100;0,40,100", "--method", "classic",
            "--out", tmp_path / "ink.kelma")
    assert r.returncode == 0, r.stderr


@pytest.mark.parametrize("args, words", [
    (["--grid", "0,40,100", "--fine-prior", "2"], ["--fine-prior needs --fine-base"]),
    (["--grid", "0,40,70,100", "--fine-base", "0,40,100", "--fine-prior", "lots"], ["--fine-prior", "'lots'"]),
    (["--grid", "0,40,70,100", "--fine-base", "0,40,100", "--fine-prior", "0"], ["--fine-prior", "positive"]),
    (["--grid", "0,40,70,100", "--fine-base", "0,50,100"], ["base model of the fine-grid fit", "lacks"]),
    (["--grid", "0,40,70,100", "--fine-base", "0,x"], ["--grid"]),
    (["--grid", "0,40,100;0,40,100;0,40,100;0,100"], ["--grid per ink", "3, 3, 3, 2"]),
    (["--grid", "0,40,100;0,40,100;0,40,100;0,50,100"], ["lacks 26 of the 81", "(40, 0, 0, 50)"]),
    (["--grid", "0,40,70,100", "--estimate-missing", "--coarse-grid", "0,40"], ["coarse grid", "100 %"]),
])
def test_bad_fit_options_give_one_clear_error(tmp_path, args, words):
    failed_cleanly(run("fit", CHART, *args, "--out", tmp_path / "o.kelma", cwd=tmp_path), *words)
