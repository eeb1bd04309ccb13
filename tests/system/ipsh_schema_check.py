# SPDX-License-Identifier: Apache-2.0
"""Validates what ipsh prints: one JSON object per line on standard input, each against the schema of its kind.

usage: ipsh_schema_check.py SCHEMA_DIRECTORY    exit status 0: all valid, and there was at least one
"""
import json
import pathlib
import sys

import jsonschema

schemas = {path.stem: json.loads(path.read_text()) for path in pathlib.Path(sys.argv[1]).glob("*.json")}
store = {schema["$id"]: schema for schema in schemas.values()}
for schema in schemas.values():
    jsonschema.Draft202012Validator.check_schema(schema)

lines = sys.stdin.read().splitlines()
if not lines:
    sys.exit("nothing to check")
for line in lines:
    value = json.loads(line)
    schema = schemas[value["kind"]]
    resolver = jsonschema.RefResolver(schema["$id"], schema, store=store)
    error = jsonschema.exceptions.best_match(
        jsonschema.Draft202012Validator(schema, resolver=resolver).iter_errors(value)
    )
    if error is not None:
        sys.exit(f"{value['kind']}: {error.json_path}: {error.message}")
