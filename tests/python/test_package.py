"""The package as a user sees it: one version number, type stubs that match the
extension (names, members, parameters) and docstrings that show signatures."""
import ast
import re
from pathlib import Path

import pytest

import kelma
import kelma._kelma as ext

ROOT = Path(__file__).resolve().parents[2]
PACKAGE = Path(kelma.__file__).resolve().parent
STUB = PACKAGE / "_kelma.pyi"

# Dunder members a stub lists when the extension defines them on a class.
DUNDERS = {"__init__", "__eq__", "__hash__", "__copy__", "__deepcopy__", "__getstate__", "__setstate__"}


def test_one_version_number_everywhere():
    cmake = (ROOT / "CMakeLists.txt").read_text()
    version = re.search(r"project\(kelma VERSION (\d+\.\d+\.\d+)", cmake).group(1)
    assert kelma.__version__ == ext.__version__ == version
    assert (PACKAGE / "py.typed").is_file()


# ---- the stub, read with ast ----

def stub_tree():
    return ast.parse(STUB.read_text(), str(STUB))


def stub_names(body):
    """name -> kind ('function', 'property', 'staticmethod', 'class', 'variable') and the node."""
    names = {}
    for node in body:
        if isinstance(node, ast.FunctionDef):
            decorators = {d.id for d in node.decorator_list if isinstance(d, ast.Name)}
            kind = "property" if "property" in decorators else "staticmethod" if "staticmethod" in decorators \
                else "function"
            names[node.name] = (kind, node)
        elif isinstance(node, ast.ClassDef):
            names[node.name] = ("class", node)
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            names[node.target.id] = ("variable", node)
    return names


def stub_parameters(node):
    a = node.args
    names = [p.arg for p in a.posonlyargs + a.args if p.arg != "self"]
    if a.kwonlyargs:
        names += ["*"] + [p.arg for p in a.kwonlyargs]
    return names


# ---- the extension, read from the objects and pybind11's signature lines ----

def split_top_level(text):
    parts, depth, quote, current = [], 0, None, ""
    for ch in text:
        if quote:
            quote = None if ch == quote else quote
        elif ch in "'\"":
            quote = ch
        elif ch in "([{":
            depth += 1
        elif ch in ")]}":
            depth -= 1
        elif ch == "," and depth == 0:
            parts.append(current.strip())
            current = ""
            continue
        current += ch
    if current.strip():
        parts.append(current.strip())
    return parts


def signature_line(name, obj):
    """The 'name(...) -> ...' line pybind11 puts first in a docstring, or None when overloaded."""
    doc = (getattr(obj, "__doc__", None) or "").lstrip("\n")
    first = doc.split("\n", 1)[0]
    if "Overloaded function" in doc[:200]:
        return None
    return first if first.startswith(name + "(") else ""


def module_parameters(name, obj):
    line = signature_line(name, obj)
    if not line:
        return line
    inside = line[len(name) + 1:line.rindex(") ->")]
    names = []
    for part in split_top_level(inside):
        if part == "*":
            names.append("*")
            continue
        p = part.split(":", 1)[0].split("=", 1)[0].strip()
        if p != "self":
            names.append(p)
    return names


def module_members(cls):
    members = {}
    for name, value in vars(cls).items():
        if value is None or (name.startswith("_") and name not in DUNDERS):
            continue
        if name == "__init__" and type(value).__name__ != "instancemethod":
            continue  # no constructor of its own (made by static methods)
        if isinstance(value, property):
            members[name] = ("property", value)
        elif isinstance(value, staticmethod):
            members[name] = ("staticmethod", getattr(cls, name))
        else:
            members[name] = ("function", value)
    return members


def module_names():
    names = {}
    for name in dir(ext):
        if name.startswith("_") and name != "__version__":
            continue
        value = getattr(ext, name)
        if isinstance(value, type):
            names[name] = ("class", value)
        elif callable(value):
            names[name] = ("function", value)
        else:
            names[name] = ("variable", value)
    return names


def describe(qualified, kind):
    return "%s %s" % (kind, qualified)


def test_stub_matches_the_extension():
    stub = stub_names(stub_tree().body)
    module = module_names()
    missing, stale, wrong_kind, parameters = [], [], [], []

    def compare(prefix, in_module, in_stub):
        for name, (kind, value) in sorted(in_module.items()):
            qualified = prefix + name
            if name not in in_stub:
                missing.append(describe(qualified, kind))
                continue
            stub_kind, node = in_stub[name]
            if stub_kind != kind:
                wrong_kind.append("%s is a %s in the module, a %s in the stub" % (qualified, kind, stub_kind))
                continue
            if kind == "class":
                compare(qualified + ".", module_members(value), stub_names(node.body))
            elif kind in ("function", "staticmethod") and name not in DUNDERS - {"__init__"}:
                want = module_parameters(name, value)
                got = stub_parameters(node)
                if want is not None and want != "" and want != got:
                    parameters.append("%s: module (%s), stub (%s)" % (qualified, ", ".join(want), ", ".join(got)))
        for name, (kind, _) in sorted(in_stub.items()):
            if name not in in_module:
                stale.append(describe(prefix + name, kind))

    compare("", module, stub)
    problems = []
    if missing:
        problems.append("missing from the stub (add them to python/kelma/_kelma.pyi): " + ", ".join(missing))
    if stale:
        problems.append("in the stub but not in the module: " + ", ".join(stale))
    if wrong_kind:
        problems.append("of another kind: " + "; ".join(wrong_kind))
    if parameters:
        problems.append("parameters differ: " + "; ".join(parameters))
    assert not problems, "python/kelma/_kelma.pyi is out of step with kelma._kelma:\n  " + "\n  ".join(problems)


def test_every_function_and_method_documents_its_signature():
    undocumented = []
    for name, (kind, value) in module_names().items():
        if kind == "function" and not signature_line(name, value):
            undocumented.append(name)
        if kind == "class" and not issubclass(value, Exception):
            for member, (mkind, mvalue) in module_members(value).items():
                if mkind in ("function", "staticmethod") and member not in DUNDERS and \
                        signature_line(member, mvalue) == "":
                    undocumented.append(name + "." + member)
    assert not undocumented, "docstrings without a signature line: " + ", ".join(sorted(undocumented))


def test_the_stub_test_sees_a_missing_name(monkeypatch):
    # The comparison itself: a name the stub lacks is reported by name.
    monkeypatch.setattr(ext, "brand_new_function", lambda: None, raising=False)
    with pytest.raises(AssertionError, match=r"missing from the stub .*function brand_new_function"):
        test_stub_matches_the_extension()
