"""The declarations are those of the header, the types are sound, and the wheel holds what it should."""

from __future__ import annotations

import ctypes
import pathlib
import re
import subprocess
import sys
import zipfile

import pytest
from conftest import BUILD

import tolk
from tolk import _library as c

SOURCES = pathlib.Path(__file__).resolve().parents[3]
HEADER = re.sub(r"//.*", "", (SOURCES / "include/tolk/c.h").read_text(encoding="utf-8"))
STRUCTS = {"tolk_outcome": c.Outcome, "tolk_call": c.Call, "tolk_peer": c.PeerInfo,
           "tolk_method_options": c.MethodOptions, "tolk_client_options": c.ClientOptions,
           "tolk_server_options": c.ServerOptions}
CALLBACKS = {"tolk_release": c.Release, "tolk_read": c.Read, "tolk_write": c.Write,
             "tolk_progress": c.Progress, "tolk_handler": c.Handler, "tolk_accept": c.Accept,
             "tolk_execute": c.Execute, "tolk_log": c.Log, "tolk_done": c.Done}
SCALARS = {"void": None, "bool": ctypes.c_bool, "int": ctypes.c_int, "int32_t": ctypes.c_int32,
           "int64_t": ctypes.c_int64, "uint64_t": ctypes.c_uint64, "size_t": ctypes.c_size_t,
           "double": ctypes.c_double, "tolk_status": ctypes.c_int, "tolk_kind": ctypes.c_int,
           "tolk_level": ctypes.c_int, "unsigned": ctypes.c_uint}


def type_of(text):
    """The ctypes types that stand for a C type, of a parameter with its name or without."""
    words = re.sub(r"\bconst\b", "", text)
    if "*" in words:
        return {ctypes.c_char_p, ctypes.c_void_p} if "char" in words else {
            ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p)}
    word = words.split()[0]
    return {SCALARS[word]} if word in SCALARS else {CALLBACKS[word]}


def functions():
    pattern = r"TOLK_API ([\w\s*]*?)(\w+)\(([^)]*)\);"
    return {name: (result, parameters) for result, name, parameters in re.findall(pattern, HEADER)}


@pytest.mark.parametrize("library", ["quick", "waiting"])
def test_functions(library):
    names = [line.split()[0] for line in getattr(c, f"_{library.upper()}").split("\n")[1:-1]]
    for name in names:
        result, parameters = functions()["tolk_" + name]
        function = getattr(getattr(c, library), name)
        wanted = [] if parameters == "void" else [type_of(one) for one in parameters.split(",")]
        assert function.restype in type_of(result), name
        assert len(function.argtypes) == len(wanted), name
        assert all(one in types for one, types in zip(function.argtypes, wanted)), name


@pytest.mark.parametrize("name", STRUCTS)
def test_structs(name):
    body = re.search(r"typedef struct %s \{(.*?)\} %s;" % (name, name), HEADER, re.S).group(1)
    body = re.sub(r"/\*.*?\*/", "", body, flags=re.S)
    members = [re.search(r"\(\*(\w+)\)|(\w+)$", one.strip()) for one in body.split(";") if one.strip()]
    names = [member.group(1) or member.group(2) for member in members]
    assert [field[0] for field in STRUCTS[name]._fields_] == names
    for text, (_, kind) in zip(body.split(";"), STRUCTS[name]._fields_):
        if "(*" not in text:
            assert kind in type_of(text), text


@pytest.mark.parametrize("name", CALLBACKS)
def test_callbacks(name):
    result, parameters = re.search(
        r"typedef ([\w\s*]+?)\(\*%s\)\(([^)]*)\);" % name, HEADER).groups()
    kind = CALLBACKS[name]
    assert kind._restype_ in type_of(result)
    assert len(kind._argtypes_) == len(parameters.split(","))
    assert all(one in type_of(text) for one, text in zip(kind._argtypes_, parameters.split(",")))


def test_statuses():
    found = {name: int(number) for name, number in re.findall(r"TOLK_(\w+) = (\d+)", re.search(
        r"typedef enum tolk_status \{(.*?)\}", HEADER, re.S).group(1))}
    assert found == {status.name: status.value for status in tolk.Status}


def test_types():
    folder = SOURCES / "bindings/python"
    ended = subprocess.run([sys.executable, "-m", "mypy", "--config-file", folder / "pyproject.toml",
                            "--cache-dir", BUILD / "mypy"],
                           cwd=folder, capture_output=True, text=True)
    assert ended.returncode == 0, ended.stdout


def test_the_wheel():
    (wheel,) = (BUILD / "wheels").glob("*.whl")
    assert re.fullmatch(r"tolk-[0-9.]+-py3-none-manylinux_2_\d+_\w+\.whl", wheel.name)
    with zipfile.ZipFile(wheel) as archive:
        names = archive.namelist()
        assert archive.testzip() is None
        assert str(SOURCES).encode() not in archive.read("tolk/lib/libtolk.so.1")
    assert "tolk/py.typed" in names
    for licence in ("LICENSE", "LICENSE-libuv"):
        assert f"tolk-{tolk.__version__}.dist-info/licenses/{licence}" in names
    maps = pathlib.Path("/proc/self/maps").read_text(encoding="utf-8")
    used = {line.split()[-1] for line in maps.splitlines() if re.search("libtolk|libuv", line)}
    folder = pathlib.Path(tolk.__file__).parent / "lib"
    assert used == {str(folder / "libtolk.so.1"), str(folder / "libuv.so.1")}
