#!/usr/bin/python3
"""Validates JSON documents (files) against a JSON schema: exit 0 when all are valid."""
import json
import sys

import jsonschema


def main():
    schema = json.load(open(sys.argv[1]))
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    failed = False
    for path in sys.argv[2:]:
        for error in validator.iter_errors(json.load(open(path))):
            print(f"{path}: {error.json_path}: {error.message}")
            failed = True
    return 1 if failed else 0


sys.exit(main())
