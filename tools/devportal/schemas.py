"""What terminals, portals and shells send to one another, held against docs/schemas.

Needs python3-jsonschema; without it (`AVAILABLE`) nothing is held against anything.
"""

import functools
import json
import pathlib

try:
    import jsonschema
except ImportError:
    jsonschema = None

AVAILABLE = jsonschema is not None
FOLDER = pathlib.Path(__file__).resolve().parents[2] / "docs" / "schemas"


def faults(name, value):
    """What is wrong with a value by the schema `name`, such as "check-in.json#/$defs/request": sentences, none when all is well.

    Members that the schema does not have are faults, too: whoever reads must pass over them, but our own programs send
    nothing that is not written down.
    """
    if not AVAILABLE:
        return []
    schema = {"$ref": name}
    resolver = jsonschema.RefResolver("", schema, store=_store())  # one for each call: it is of no use to two threads
    errors = jsonschema.Draft202012Validator(schema, resolver=resolver).iter_errors(value)
    return sorted(f"{name}: {error.json_path} {error.message}" for error in errors)


@functools.cache
def definitions(file):
    """The names in a schema file."""
    return json.loads((FOLDER / file).read_text("utf-8"))["$defs"]


@functools.cache
def _store():
    return {file.name: _closed(json.loads(file.read_text("utf-8"))) for file in FOLDER.glob("*.json")}


def _closed(schema):
    """The same without room for further members."""
    if isinstance(schema, list):
        return [_closed(each) for each in schema]
    if not isinstance(schema, dict):
        return schema
    closed = {name: _closed(each) for name, each in schema.items()}
    if "properties" in schema and "object" in schema.get("type", ()):
        closed["additionalProperties"] = False
    return closed
