"""Writes the headers that put Python text into the module: embed.py OUTPUT_FOLDER.

docs.hpp has the docstrings of the stub, each begun by its signature, so that help() shows what
editors show. python_sources.hpp has what the import runs: the protocol PaidReply, as the stub has
it, and signatures.py.
"""

import ast
import copy
import json
import re
import sys
from pathlib import Path

HERE = Path(__file__).parent
STUB = ast.parse((HERE / "decision_bounds.pyi").read_text(encoding="utf-8"))
IMPORTS = "from abc import abstractmethod\nfrom typing import Protocol, runtime_checkable\n\n"


def signature(name: str, arguments: ast.arguments) -> str:
    """The first line of a docstring in which the interpreter looks for a signature; empty where a
    default is an object, which such a line cannot show."""
    text = ast.unparse(arguments)
    self = "$" if text == "self" or text.startswith("self, ") else ""
    return "" if "..." in text else f"{name}({self}{text})\n--\n\n"


def without_annotations(arguments: ast.arguments) -> ast.arguments:
    for argument in ast.walk(arguments):
        if isinstance(argument, ast.arg):
            argument.annotation = None
    return arguments


def identifier(name: str) -> str:
    """The name without the underscores that C++ reserves."""
    return re.sub("_+", "_", name).strip("_")


def docs(body: list[ast.stmt], owner: str = "") -> dict[str, str]:
    found = {}
    for node in body:
        if isinstance(node, ast.FunctionDef) and (text := ast.get_docstring(node)):
            arguments = without_annotations(node.args)
            found[identifier(owner + node.name)] = signature(node.name, arguments) + text
        elif isinstance(node, ast.ClassDef) and (text := ast.get_docstring(node)):
            arguments = init_arguments(node)
            begin = signature(node.name, arguments) if arguments else ""
            found[identifier(node.name)] = begin + text
            found |= docs(node.body, f"{node.name}_")
    return found


def init_arguments(node: ast.ClassDef) -> ast.arguments | None:
    for member in node.body:
        if isinstance(member, ast.FunctionDef) and member.name == "__init__":
            arguments = without_annotations(copy.deepcopy(member.args))
            arguments.args.pop(0)  # self
            return arguments
    return None


def parameters(arguments: ast.arguments) -> list[tuple[object, ...]]:
    defaults = [(ast.literal_eval(default),) for default in arguments.defaults]
    required = len(arguments.args) - len(defaults)
    return [(argument.arg, *default)
            for argument, default in zip(arguments.args, [()] * required + defaults)]  # fmt: skip


def header(namespace: str, texts: dict[str, str]) -> str:
    rows = "".join(
        f"inline constexpr char {name}[] = {json.dumps(text)};\n" for name, text in texts.items()
    )
    return f"#pragma once\n\nnamespace decision_bounds::python::{namespace} {{\n\n{rows}\n}}\n"


classes = {node.name: node for node in STUB.body if isinstance(node, ast.ClassDef)}
known = {name: parameters(arguments) for name, node in classes.items()
         if (arguments := init_arguments(node))}  # fmt: skip
signatures = (HERE / "signatures.py").read_text(encoding="utf-8")
sources = {"paid_reply": IMPORTS + ast.unparse(classes["PaidReply"]),
           "signatures": f"PARAMETERS = {known}\n{signatures}"}  # fmt: skip
texts = {"module": ast.get_docstring(STUB) or ""} | docs(STUB.body)
folder = Path(sys.argv[1])
(folder / "docs.hpp").write_text(header("doc", texts), encoding="utf-8")
(folder / "python_sources.hpp").write_text(header("source", sources), encoding="utf-8")
