#!/usr/bin/env python3
"""Checks that the shared library exports only the names of its installed headers.

    check_symbols.py NM READELF LIBRARY SONAME HEADERS
"""

import re
import subprocess
import sys
from pathlib import Path

# Internal, even if a public header mentions them one day.
HIDDEN = ("ZebSkein", "ZebTdxMessage", "ZebMemoryStatus", "ZebStoredCall")

# Exported names without our prefix, each with its reason.
OTHER_NAMES = {
    "m_LruNodeCount": "a process-wide count, kept for inspection under this name",
    # The linker adds these to every library whose dependencies export theirs, such as Qt Gui.
    "__bss_start": "the start of the zero-initialised data",
    "_edata": "the end of the initialised data",
    "_end": "the end of all data",
}

WEAK = "WwVvu"
OF_A_CLASS = re.compile(
    r"^(?:vtable|VTT|typeinfo|typeinfo name|guard variable|(?:non-)?virtual thunk"
    r"|construction vtable) (?:for|to) ")
LIBRARIES = re.compile(r"\b(?:std|__gnu_cxx)::|\bQ[A-Z]|\bQt\w*::")
SANITIZER = re.compile(r"^__(?:odr_)?asan|^__(?:ub|t)san")


def first_name(symbol):
    """The outermost name that a symbol belongs to: its class, its namespace or itself."""
    symbol = OF_A_CLASS.sub("", symbol)
    return re.match(r"\w*", symbol).group(0)


def problem(kind, symbol, public_names):
    """Why `symbol` must not be exported, or None."""
    if any(re.search(rf"\b{name}\b", symbol) for name in HIDDEN):
        return "is internal"
    name = first_name(symbol)
    if name in OTHER_NAMES or SANITIZER.match(name):
        return None
    if re.match(r"(?:Zeb|TdxTester$)", name):
        return None if name in public_names else "is not in an installed header"
    if name in ("qHash", "swap") and "Zeb" in symbol:
        return None
    # Instances of other libraries' templates, which are visible by their own attributes.
    if kind in WEAK and LIBRARIES.search(re.split("[<(]", symbol)[0]):
        return None
    return "is not ours"


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main(nm, readelf, library, soname, headers):
    public_names = set()
    for header in Path(headers).rglob("*.h"):
        public_names.update(re.findall(r"\w+", header.read_text(encoding="utf-8")))

    failures = []
    symbols = []
    for line in output_of(nm, "-D", "-C", "--defined-only", library).splitlines():
        _address, kind, symbol = line.split(" ", 2)
        symbols.append(symbol)
        reason = problem(kind, symbol, public_names)
        if reason:
            failures.append(f"{symbol} is exported, but {reason}")
    if not any(symbol.startswith("ZebDataBlockManager::setup(") for symbol in symbols):
        failures.append("ZebDataBlockManager::setup() is not exported")

    dynamic = output_of(readelf, "-d", library)
    if f"Library soname: [{soname}]" not in dynamic:
        failures.append(f"the SONAME is not {soname}")
    if "RUNPATH" in dynamic or "RPATH" in dynamic:
        failures.append("the installed library has an RPATH or RUNPATH")

    for failure in failures:
        print(failure)
    print(f"{len(symbols)} symbols, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 6:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
