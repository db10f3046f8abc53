"""The type stubs describe the extension module as it is: every public
class, function and method has a stub, and every stub names something real."""

import ast
import inspect
import os

import orbivane
from orbivane import _orbivane


def stub_names():
    path = os.path.join(os.path.dirname(orbivane.__file__), "_orbivane.pyi")
    tree = ast.parse(open(path).read())
    names = {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            names[node.name] = {
                item.name if isinstance(item, ast.FunctionDef) else item.target.id
                for item in node.body
                if isinstance(item, ast.FunctionDef) or (isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name))
            }
        elif isinstance(node, ast.FunctionDef):
            names[node.name] = None
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            names[node.target.id] = None
    return names


def public(obj):
    return {n for n in dir(obj) if not n.startswith("_")}


def test_stubs_cover_the_module():
    stubs = stub_names()
    for name in public(_orbivane) | {"_match_to_target_seconds", "__version__"}:
        assert name in stubs, f"{name} has no stub"
        obj = getattr(_orbivane, name)
        if inspect.isclass(obj) and not issubclass(obj, BaseException):
            described = {m for m in stubs[name] if not m.startswith("_")}
            assert public(obj) == described, f"{name}: stubs differ from the class"


def test_every_stub_names_something_real_with_a_docstring():
    for name, members in stub_names().items():
        assert hasattr(_orbivane, name), f"stub {name} names nothing"
        for member in members or ():
            assert hasattr(getattr(_orbivane, name), member), f"stub {name}.{member} names nothing"
    for name in ("MatchToTarget", "Camera", "calibrate", "render_panorama"):
        assert getattr(orbivane, name).__doc__
    assert "Releases the GIL" in orbivane.MatchToTarget.calibrate.__doc__


def test_every_public_member_says_what_it_does():
    """help() shows a sentence for every class member, not just a signature."""
    undocumented = []
    for name in public(_orbivane):
        cls = getattr(_orbivane, name)
        if not inspect.isclass(cls) or issubclass(cls, BaseException):
            continue
        for member in public(cls):
            attr = getattr(cls, member)
            doc = (getattr(attr, "__doc__", None) or "").strip()
            if isinstance(inspect.getattr_static(cls, member), property):
                described = bool(doc)
            else:  # pybind11's first line is the signature
                described = len([line for line in doc.splitlines() if line.strip()]) > 1
            if not described:
                undocumented.append(f"{name}.{member}")
    assert undocumented == []
