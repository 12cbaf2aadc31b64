"""Reads one JSON document per line and prints each in the notation of document_model_test.cpp."""

import json
import sys


class Members(list):
    """The members of an object in their order, repeated names included."""


def notation(value):
    if value is None:
        return "z"
    if value is True or value is False:
        return "t" if value else "f"
    if isinstance(value, str):
        return "s" + value.encode().hex()
    if isinstance(value, int):
        return "n%d" % value
    if isinstance(value, Members):
        return "{" + ",".join(name.encode().hex() + ":" + notation(member) for name, member in value) + "}"
    return "[" + ",".join(map(notation, value)) + "]"


for line in sys.stdin.buffer:
    print(notation(json.loads(line.decode(), object_pairs_hook=Members)))
