#!/usr/bin/env python3
"""The schemas in Docs/schemas and our decoders say the same about every document.

    check_schemas.py VERDICTS     exit 0: they do; 1: they do not, each difference on its own line;
                                  77: python3-jsonschema is missing

VERDICTS is the program of DocumentVerdicts.cpp. Every folder beside this file is a kind of document:

    kind.json   schema    its file in Docs/schemas
                examples  patterns of further good documents, from the project's root
                decoder   the sources that spell its member names and enumeration texts
                beyond    what a decoder says of faults that no schema can express
    good/       taken by both
    bad/        refused by both
    beyond/     taken by the schema, refused by the decoder with one of the texts of "beyond"

A document of good/ is then changed in one place at a time, in every place, and the two have to agree about each result.
A member that only one of them knows is found by its name and, because what the decoder read is written again,
by its place.
"""

import copy
import json
import re
import subprocess
import sys
from pathlib import Path

try:
    from jsonschema import Draft202012Validator
except ImportError:
    print("python3-jsonschema is missing")
    sys.exit(77)

FOLDER = Path(__file__).resolve().parent
ROOT = FOLDER.parents[1]
SCHEMAS = ROOT / "Docs" / "schemas"

# What a value is replaced by: every type, and numbers around the usual limits.
REPLACEMENTS = [None, True, 0, -1, 1, 0.5, 3.0, 1e39, -1e39, 2**63, "", "x", [], [None], {}, {"x": 0}]
MOST_VALUES_CHANGED = 60  # in a document of good/; larger ones are not changed


class Kind:
    """One kind of document with its schema and its documents."""

    def __init__(self, folder):
        self.name = folder.name
        kind = json.loads((folder / "kind.json").read_text(encoding="utf-8"))
        self.schema_file = kind["schema"]
        self.schema = json.loads((SCHEMAS / self.schema_file).read_text(encoding="utf-8"))
        self.decoder = [ROOT / source for source in kind["decoder"]]
        self.beyond = [re.compile(text) for text in kind["beyond"]]
        self.documents = {sort: sorted(folder.glob(f"{sort}/*.json")) for sort in ("good", "bad", "beyond")}
        self.examples = sorted(file for pattern in kind["examples"] for file in ROOT.glob(pattern))


def parsed(text):
    """(document, True), or (None, False) for a text that is no JSON."""

    def refuse(constant):
        raise ValueError(constant)

    try:
        return json.loads(text, parse_constant=refuse), True
    except ValueError:
        return None, False


class Decoders:
    """Asks the decoders about all documents in one run: they are announced first."""

    def __init__(self, program):
        self.program, self.lines, self.answers = program, [], {}

    def announce(self, kind, text):
        line = kind + "\t" + re.sub(r"[\r\n]", " ", text)
        self.lines.append(line)
        return line

    def run(self):
        lines = list(dict.fromkeys(self.lines))
        done = subprocess.run(
            [self.program], input="\n".join(lines) + "\n", capture_output=True, text=True, encoding="utf-8"
        )
        answers = done.stdout.split("\n")[:-1]
        if done.returncode != 0 or len(answers) != len(lines):
            sys.exit(f"{self.program}: exit {done.returncode} after {len(answers)} documents: {done.stderr}")
        self.answers = dict(zip(lines, answers))


def places(value, path=()):
    """Paths of all values in a document, itself included."""
    yield path
    members = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for key, member in members:
        yield from places(member, path + (key,))


def at(document, path):
    for key in path:
        document = document[key]
    return document


def variants(document):
    """(what was changed, the changed document), one change at a time."""
    for path in places(document):
        old = at(document, path)
        name = ".".join(map(str, path)) or "the document"
        if path:
            changed = copy.deepcopy(document)
            del at(changed, path[:-1])[path[-1]]
            yield f"without {name}", changed
        for new in REPLACEMENTS:
            if not path:
                yield f"{name} = {new!r}", new
                continue
            changed = copy.deepcopy(document)
            at(changed, path[:-1])[path[-1]] = new
            yield f"{name} = {new!r}", changed
        if isinstance(old, dict):
            changed = copy.deepcopy(document)
            at(changed, path)["unheardOf"] = 7
            yield f"{name} with another member", changed
        if isinstance(old, list):
            for more in [old[-1:], old[:1] + old[:1], [None]]:
                changed = copy.deepcopy(document)
                at(changed, path).extend(copy.deepcopy(more))
                yield f"{name} with {len(more)} elements more", changed


def subschemas(schema, path=()):
    """Paths of all objects in a schema that declare members."""
    if isinstance(schema, dict):
        if isinstance(schema.get("properties"), dict):
            yield path
        for key, value in schema.items():
            yield from subschemas(value, path + (key,))
    elif isinstance(schema, list):
        for key, value in enumerate(schema):
            yield from subschemas(value, path + (key,))


def closed(schema):
    """The schema that takes no member but the declared ones."""
    strict = copy.deepcopy(schema)
    for path in subschemas(schema):
        at(strict, path)["additionalProperties"] = False
    return strict


def declared(schema):
    """(name, the schema that refuses whatever has this member) for every declared member at its place."""
    for path in subschemas(schema):
        for name in at(schema, path)["properties"]:
            strict = copy.deepcopy(schema)
            at(strict, path)["properties"][name] = False
            yield "/".join(map(str, path + (name,))), strict


def names_in_schema(schema):
    """Member names and texts of enumerations."""
    names = set()
    if isinstance(schema, dict):
        names |= set(schema.get("properties", {}) if isinstance(schema.get("properties"), dict) else {})
        if isinstance(schema.get("enum"), list):
            names |= {text for text in schema["enum"] if isinstance(text, str)}
        if isinstance(schema.get("const"), str):
            names.add(schema["const"])
    for value in schema.values() if isinstance(schema, dict) else schema if isinstance(schema, list) else ():
        names |= names_in_schema(value)
    return names


def names_in_source(path):
    """String literals that could be a member's name."""
    code = re.sub(r"//.*", "", path.read_text(encoding="utf-8"))
    return set(re.findall(r'"([A-Za-z_][A-Za-z0-9_]*)"', code))


def check_names(kinds):
    faults = []
    known = {}
    for kind in kinds:
        for source in kind.decoder:
            known.setdefault(source, set()).update(names_in_schema(kind.schema))
        missing = names_in_schema(kind.schema) - set().union(*map(names_in_source, kind.decoder))
        faults += [f'{kind.schema_file}: no decoder spells "{name}"' for name in sorted(missing)]
    for source, names in known.items():
        faults += [
            f'{source.relative_to(ROOT)}: no schema knows "{name}"'
            for name in sorted(names_in_source(source) - names)
        ]
    return faults


def check_kind(kind, decoders):
    """Announces the kind's documents; returns what is to be done when the answers are there."""
    validator = Draft202012Validator(kind.schema)
    cases = []  # (name, expected sort or None, document, is it JSON, line)
    for sort, files in [*kind.documents.items(), ("good", kind.examples)]:
        for file in files:
            text = file.read_text(encoding="utf-8")
            document, is_json = parsed(text)
            name = str(file.relative_to(ROOT))
            cases.append((name, sort, document, is_json, decoders.announce(kind.name, text)))
            is_small = sum(1 for _ in places(document)) <= MOST_VALUES_CHANGED
            if sort == "good" and is_json and is_small and file not in kind.examples:
                for change, variant in variants(document):
                    line = decoders.announce(kind.name, json.dumps(variant))
                    cases.append((f"{name}, {change}", None, variant, True, line))

    def faults():
        found = []
        used = set()
        rewritten = []
        for name, sort, document, is_json, line in cases:
            answer = decoders.answers[line]
            error = next(validator.iter_errors(document), None) if is_json else "no JSON"
            is_taken = answer.startswith("+")
            fitting = [text for text in kind.beyond if not is_taken and text.search(answer[1:])]
            if sort == "beyond":
                used.update(fitting)
            if is_taken and sort == "good" and answer[1:]:
                rewritten.append((name, json.loads(answer[1:])))
            expected = {"good": (True, True), "bad": (False, False), "beyond": (True, False)}.get(sort)
            if expected and (error is None, is_taken) != expected:
                found.append(f"{name}: schema: {error.message if error else 'taken'}; decoder: {answer}")
            elif sort == "beyond" and not fitting:
                found.append(f'{name}: not among the texts of "beyond": {answer}')
            elif sort is None and is_taken != (error is None) and not (error is None and fitting):
                found.append(f"{name}: schema: {error.message if error else 'taken'}; decoder: {answer}")
        found += [f'{kind.name}/beyond: no example of "{t.pattern}"' for t in kind.beyond if t not in used]
        found += check_places(kind, rewritten)
        return found

    return faults


def check_places(kind, rewritten):
    """What the decoders write are the declared members, all of them, and no other."""
    if not rewritten:
        return []
    strict = Draft202012Validator(closed(kind.schema))
    found = []
    for name, document in rewritten:
        for error in strict.iter_errors(document):
            found.append(f"{name}, as it is written: {error.message}")
    for place, without in declared(kind.schema):
        validator = Draft202012Validator(without)
        if all(validator.is_valid(document) for _, document in rewritten):
            found.append(f"{kind.schema_file}: no good document leads to {place}")
    return found


def main(arguments):
    kinds = [Kind(file.parent) for file in sorted(FOLDER.glob("*/kind.json"))]
    faults = []
    schemas = {file.name for file in SCHEMAS.glob("*.schema.json")}
    faults += [f"{name}: no folder in Tests/Documents" for name in sorted(schemas - {k.schema_file for k in kinds})]
    for kind in kinds:
        Draft202012Validator.check_schema(kind.schema)
        if kind.schema.get("$schema") != Draft202012Validator.META_SCHEMA["$id"]:
            faults.append(f"{kind.schema_file}: its $schema is not draft 2020-12")
        faults += [f"{kind.name}: no {sort} document" for sort in ("good", "bad") if not kind.documents[sort]]
    faults += check_names(kinds)
    decoders = Decoders(arguments[0])
    checks = [check_kind(kind, decoders) for kind in kinds]
    decoders.run()
    for check in checks:
        faults += check()
    for fault in faults:
        print(fault)
    print(f"{len(decoders.answers)} documents, {len(kinds)} kinds")
    return 1 if faults or not kinds else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
