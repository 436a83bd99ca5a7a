#!/usr/bin/python3
"""Validates every dumped blob and history status against the blob schema.

usage: validate_blobs.py SCHEMA DUMP_DIR

Files named blob-*.json must be whole blobs, history-ordinal-*.json incident
histories and history-data-*.json media histories. Fails when any file is
invalid, when a blob ends in a line feed, or when no blob was validated.
"""

import json
import pathlib
import sys

from jsonschema import Draft202012Validator


def sub_validator(schema, name):
    """A validator for one of the schema's definitions, its references intact."""
    return Draft202012Validator({"$ref": "#/$defs/" + name, "$defs": schema["$defs"]})


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    schema = json.loads(pathlib.Path(sys.argv[1]).read_text())
    Draft202012Validator.check_schema(schema)
    validators = {
        "blob": Draft202012Validator(schema),
        "history-ordinal": sub_validator(schema, "ordinalHistory"),
        "history-data": sub_validator(schema, "dataHistory"),
    }
    directory = pathlib.Path(sys.argv[2])
    counts = dict.fromkeys(validators, 0)
    failures = 0
    for path in sorted(directory.glob("*.json")) if directory.is_dir() else []:
        kind = next((k for k in sorted(validators, key=len, reverse=True) if path.name.startswith(k + "-")), None)
        if kind is None:
            print("%s: unknown kind of file" % path, file=sys.stderr)
            failures += 1
            continue
        text = path.read_bytes().decode("utf-8")
        if kind == "blob" and text.endswith("\n"):
            print("%s: blob ends in a line feed" % path, file=sys.stderr)
            failures += 1
        errors = sorted(validators[kind].iter_errors(json.loads(text)), key=lambda e: list(e.absolute_path))
        for error in errors[:5]:
            print("%s: %s at %s" % (path, error.message, "/".join(map(str, error.absolute_path))), file=sys.stderr)
        failures += 1 if errors else 0
        counts[kind] += 1
    print("validated: " + ", ".join("%d %s" % (n, k) for k, n in sorted(counts.items())))
    if counts["blob"] == 0:
        print("no blob found in %s" % directory, file=sys.stderr)
        return 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
