"""Makes the wheel: the package, and the library for it. Needs nothing but Python.

usage: wheel.py --out FOLDER [--platform win_amd64] [--licence NAME=FILE] [NAME=]LIBRARY...

pip uses it too (`pip install bindings/python`): without a library the wheel takes the system's.
"""

import argparse
import base64
import hashlib
import os
import pathlib
import platform
import re
import sys
import zipfile

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
LICENCE = str(ROOT / "LICENSE")
SUMMARY = "Calls between processes by method name"


def version():
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"project\(tolk VERSION ([0-9.]+)", text).group(1)


def platform_of(libraries):
    """The oldest glibc that has what the libraries need."""
    needed = [int(minor) for data in libraries.values()
              for minor in re.findall(rb"\0GLIBC_2\.(\d+)(?:\.\d+)*(?=\0)", data)]
    return f"manylinux_2_{max(needed)}_{platform.machine()}"


def files_of(words):
    """The bytes of files by name, of [NAME=]FILE."""
    pairs = (word.rpartition("=") for word in words)
    return {name or os.path.basename(path): pathlib.Path(path).read_bytes() for name, _, path in pairs}


def contents(libraries, licences, tag):
    """Name and bytes of all files, but for the list of them."""
    info = f"tolk-{version()}.dist-info"
    for file in sorted((HERE / "tolk").glob("*")):
        if file.suffix in (".py", ".typed"):
            yield f"tolk/{file.name}", file.read_bytes()
    for name, data in sorted(libraries.items()):
        yield f"tolk/lib/{name}", data
    for name, data in licences.items():
        yield f"{info}/licenses/{name}", data
    yield f"{info}/METADATA", (
        f"Metadata-Version: 2.1\nName: tolk\nVersion: {version()}\nSummary: {SUMMARY}\n"
        "License: MIT\nRequires-Python: >=3.9\nClassifier: Typing :: Typed\n"
        "Description-Content-Type: text/markdown\n\n").encode() + (HERE / "README.md").read_bytes()
    yield f"{info}/WHEEL", (
        f"Wheel-Version: 1.0\nGenerator: tolk\nRoot-Is-Purelib: {str(not libraries).lower()}\n"
        f"Tag: {tag}\n").encode()


def make(folder, libraries, licences, where):
    tag = f"py3-none-{where}"
    name = f"tolk-{version()}-{tag}.whl"
    pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
    record = []
    with zipfile.ZipFile(pathlib.Path(folder) / name, "w", zipfile.ZIP_DEFLATED) as wheel:

        def add(path, data):
            # The same bytes for the same contents.
            entry = zipfile.ZipInfo(path, (1980, 1, 1, 0, 0, 0))
            entry.external_attr = 0o100644 << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            wheel.writestr(entry, data)

        for path, data in contents(libraries, licences, tag):
            add(path, data)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            record.append(f"{path},sha256={digest},{len(data)}")
        listed = f"tolk-{version()}.dist-info/RECORD"
        add(listed, "\n".join([*record, f"{listed},,", ""]).encode())
    return name


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    """What pip calls."""
    return make(wheel_directory, {}, files_of([LICENCE]), "any")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True)
    parser.add_argument("--platform")
    parser.add_argument("--licence", action="append", default=[])
    parser.add_argument("libraries", nargs="+", metavar="[NAME=]LIBRARY")
    options = parser.parse_args()
    libraries, licences = files_of(options.libraries), files_of([LICENCE, *options.licence])
    print(make(options.out, libraries, licences, options.platform or platform_of(libraries)))


if __name__ == "__main__":
    sys.exit(main())
