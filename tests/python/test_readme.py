"""The README's Python examples run as written (as scripts: __name__ is
"__main__", which the Dask example's worker processes rely on)."""
import re
from pathlib import Path

README = Path(__file__).resolve().parents[2] / "README.md"


def test_readme_python_examples_run():
    blocks = re.findall(r"```python\n(.*?)```", README.read_text(), re.S)
    assert blocks, "the README has no Python example"
    for code in blocks:
        exec(compile(code, str(README), "exec"), {"__name__": "__main__"})
