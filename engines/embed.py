"""Writes the headers that put Python text into the module: embed.py OUTPUT_FOLDER.

stub.hpp has the functions, methods and classes (by their __init__) of the stub: the parameters, and
the docstring, begun by its signature, so that help() shows what editors show. python_sources.hpp
has what the import runs: the errors and the protocol PaidReply, as the stub has them, and
signatures.py.
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


def declaration(owner: str, name: str, arguments: ast.arguments, text: str) -> str:
    """A Signature (capi/arguments.hpp); one with a default comes after all without."""
    names = [given.arg for given in [*arguments.args, *arguments.kwonlyargs] if given.arg != "self"]
    defaults = [*arguments.defaults, *filter(None, arguments.kw_defaults)]
    positional = len(names) - len(arguments.kwonlyargs) if not arguments.vararg else "any_number"
    constant = identifier(owner + name)
    list_of_names, array = "{}", ""
    if names:
        list_of_names = f"{constant}_parameters"
        array = f"inline constexpr const char* {list_of_names}[] = {{{json.dumps(names)[1:-1]}}};\n"
    return (f"{array}inline constexpr Signature {constant}{{\n    {json.dumps(name)},\n"
            f"    {json.dumps(signature(name, arguments) + text)},\n"
            f"    {list_of_names}, {positional}, {len(names) - len(defaults)}}};\n")  # fmt: skip


def declarations(body: list[ast.stmt], owner: str = "") -> str:
    found = ""
    for node in body:
        text = ast.get_docstring(node) if isinstance(node, (ast.FunctionDef, ast.ClassDef)) else None
        if isinstance(node, ast.FunctionDef) and text:
            found += declaration(owner, node.name, without_annotations(node.args), text)
        elif isinstance(node, ast.ClassDef) and text and (arguments := init_arguments(node)):
            found += declaration("", node.name, arguments, text)
            found += declarations(node.body, f"{node.name}_")
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


def header(namespace: str, includes: str, rows: str) -> str:
    space = f"decision_bounds::python::{namespace}"
    return f"#pragma once\n{includes}\nnamespace {space} {{\n\n{rows}\n}}\n"


def text_row(name: str, text: str) -> str:
    return f"inline constexpr char {name}[] = {json.dumps(text)};\n"


classes = {node.name: node for node in STUB.body if isinstance(node, ast.ClassDef)}
known = {name: parameters(arguments) for name, node in classes.items()
         if (arguments := init_arguments(node))}  # fmt: skip
declared = [node for name, node in classes.items()
            if name == "PaidReply" or name.startswith("Decision")]  # fmt: skip
signatures = (HERE / "signatures.py").read_text(encoding="utf-8")
sources = text_row("declared", IMPORTS + "\n\n".join(map(ast.unparse, declared)))
sources += text_row("signatures", f"PARAMETERS = {known}\n{signatures}")
stub = text_row("module", ast.get_docstring(STUB) or "") + declarations(STUB.body)
folder = Path(sys.argv[1])
(folder / "stub.hpp").write_text(
    header("stub", '\n#include "capi/arguments.hpp"\n', stub), encoding="utf-8")  # fmt: skip
(folder / "python_sources.hpp").write_text(header("source", "", sources), encoding="utf-8")
