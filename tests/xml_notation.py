"""Reads XML documents, a NUL behind each, with Expat and prints each in the notation of document_model_test.cpp, the
name of the outermost element in front."""

import sys
import xml.parsers.expat


class Element:
    def __init__(self, name, attributes):
        self.name = name
        self.attributes = attributes
        self.text = ""
        self.children = []


def read(document):
    outside = Element("", [])
    opened = [outside]

    def start(name, attributes):
        element = Element(name, attributes)
        opened[-1].children.append(element)
        opened.append(element)

    def characters(text):
        opened[-1].text += text

    parser = xml.parsers.expat.ParserCreate()
    parser.ordered_attributes = True
    parser.StartElementHandler = start
    parser.EndElementHandler = lambda name: opened.pop()
    parser.CharacterDataHandler = characters
    parser.Parse(document, True)
    [root] = outside.children
    return root


def type_of(element):
    name, kind = element.attributes
    assert name == "type", name
    return kind


def notation(element, kind):
    if kind == "string":
        assert not element.children
        return "s" + element.text.encode().hex()
    if kind == "number":
        assert str(int(element.text)) == element.text
        return "n" + element.text
    if kind == "boolean":
        return {"true": "t", "false": "f"}[element.text]
    if kind == "null":
        assert element.text == "" and not element.children
        return "z"
    assert element.text.strip("\t\n") == "", element.text
    children = [(child.name, notation(child, type_of(child))) for child in element.children]
    if kind == "struct":
        return "{" + ",".join(name.encode().hex() + ":" + child for name, child in children) + "}"
    assert kind == "array" and all(name == "li" for name, _ in children)
    return "[" + ",".join(child for _, child in children) + "]"


for text in sys.stdin.buffer.read().split(b"\0")[:-1]:
    outermost = read(text)
    assert outermost.attributes == []
    print(outermost.name + ":" + notation(outermost, "struct"))
