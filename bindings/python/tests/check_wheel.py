"""The wheel for Windows, which cannot be installed here: what it needs is in it.

usage: check_wheel.py FOLDER OBJDUMP
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import zipfile

SYSTEM = {"advapi32.dll", "dbghelp.dll", "iphlpapi.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll",
          "psapi.dll", "shell32.dll", "user32.dll", "userenv.dll", "ws2_32.dll"}


def names_in(source, variable):
    """The functions of a table of _library.py."""
    table = re.search(rf'^{variable} = """\n(.*?)"""', source, re.S | re.M).group(1)
    return {"tolk_" + line.split()[0] for line in table.splitlines() if line.strip()}


def main(folder, objdump):
    (wheel,) = pathlib.Path(folder).glob("*-win_amd64.whl")
    with tempfile.TemporaryDirectory() as place, zipfile.ZipFile(wheel) as archive:
        assert archive.testzip() is None
        archive.extractall(place)
        package = pathlib.Path(place) / "tolk"
        assert (package / "py.typed").exists()
        libraries = {file.name.lower(): subprocess.run(
            [objdump, "-p", file], capture_output=True, text=True, check=True).stdout
            for file in (package / "lib").iterdir()}
        for name, told in libraries.items():
            needed = {one.lower() for one in re.findall(r"DLL Name: (\S+)", told)}
            assert needed <= SYSTEM | set(libraries), f"{name} needs {needed - SYSTEM - set(libraries)}"
        source = (package / "_library.py").read_text(encoding="utf-8")
        exported = set(re.findall(r"\btolk_\w+$", libraries["tolk.dll"], re.M))
        wanted = names_in(source, "_QUICK") | names_in(source, "_WAITING")
        assert len(wanted) > 80 and wanted <= exported, f"not exported: {wanted - exported}"


if __name__ == "__main__":
    main(*sys.argv[1:])
