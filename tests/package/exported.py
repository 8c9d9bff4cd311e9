"""Holds what a shared library exports to what the public headers offer: exported.py LIBRARY."""

import re
import subprocess
import sys
from pathlib import Path

HEADERS = Path(__file__).parents[2] / "include/decision_bounds"
CLASS = re.compile(r"^class (?:\[\[nodiscard\]\] )?DECISION_BOUNDS_(API|TYPE)\b.*?(\w+)(?: final)?"
                   r"(?: : [^{]*)? {\n(.*?)^};", re.M | re.S)  # fmt: skip
MEMBER = re.compile(r"^  (?=\S)(?!using\b)[^(;]*?(~?\b\w+)\((?![^;]*= delete)", re.M)

text = "\n".join(re.sub("//.*", "", path.read_text()) for path in HEADERS.glob("*.hpp"))
classes = CLASS.findall(text)
types = {name for _, name, _ in classes}
functions = set(re.findall(r"^DECISION_BOUNDS_API .*?(\w+)\(", text, re.M))
functions |= {f"{name}::{member}" for mark, name, body in classes if mark == "API"
              for member in MEMBER.findall(body)}  # fmt: skip

OWN = re.compile(r"(?:(?:typeinfo|typeinfo name|vtable) for )?decision_bounds::([\w:~]+)")
nm = ["nm", "--dynamic", "--demangle", "--defined-only", "--format=just-symbols", sys.argv[1]]
names = subprocess.check_output(nm, text=True).splitlines()
exported = {own[1] if (own := OWN.match(name)) else name for name in names}
if unknown := exported - functions - types:
    print("exported, but not public:", *sorted(unknown), sep="\n  ")
if missing := functions - exported:
    print("public, but not exported:", *sorted(missing), sep="\n  ")
print(f"{len(functions)} public functions, {len(exported)} names exported")
sys.exit(bool(unknown or missing or not functions))
