#!/usr/bin/env python3
"""reference_filter.py HEADER: the header with Doxygen's commands in its comments, for Doxygen alone.

CONTRIBUTING.md describes the comments. One and the functions below it, up to an empty line, become a page.
What it does not say of an argument, or under a label like "Threads:", is taken from the comment of its section
or of the file; what is still missing is left for Doxygen and tests/reference_pages_test.sh to report.
"""
import pathlib
import re
import sys

ARGUMENT = re.compile(r"((?:\w+, )*(?:\w+|\.\.\.))  +(\S.*)")
PARAGRAPHS = ("Cost", "Callbacks", "Errors", "Ownership", "Threads")
LABEL = re.compile(rf"(Returns(?= )|(?:{'|'.join(PARAGRAPHS)})(?=:)):? *(.*)")
LABEL_WITHIN = re.compile(r"(?<=[.)]) (?=Returns |Ownership: |Threads: )")
MARKS = re.compile(r" *\bQV_(?:PRINTF\(.*?\)|CALLED_OFTEN|EXTENSION|BEGIN_DECLS|END_DECLS)")
IN_PLACE = re.compile(r"(?ms)^#ifdef QV_INLINE\n.*?^#endif\n\n?")  # definitions, not declarations
SECTION = re.compile(r"/\* -+ (.*?) -+ \*/")
FIELDS = re.compile(r"( +(?:\w+ )+)(\**\w+(?:, \**\w+)+);")


def escaped(text):
    """Takes the meaning off the characters that have one for Doxygen; names of functions become links."""
    for character, entity in (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;")):
        text = text.replace(character, entity)
    text = re.sub(r"([\\@%#$]|::|---?)", r"\\\1", text)
    link = lambda word: word[0] + "()" if word[0] in functions else word[0]
    parts = [part if i % 2 else re.sub(r"\b\w+\b(?!\()", link, part)
             for i, part in enumerate(re.split(r'(".*?"|`.*?`)', text))]
    return re.sub(r"`(.*?)`", r"<tt>\1</tt>", "".join(parts)).replace('"', "&quot;")


def capitalised(text):
    return text if re.match(r"errno|\w\b", text) else text[:1].upper() + text[1:]


def as_brief(text):
    """Doxygen makes a quote in a brief text one that a man page's macros can take."""
    return text.replace("&quot;", '"')


class Comment:
    """What a comment says: text in paragraphs, arguments by name, paragraphs by label."""

    def __init__(self, comment="/**/"):
        self.text, self.arguments, self.labels, self.result = [], {}, {}, ""
        for paragraph in re.split(r"\n\n+", re.sub(r"(?m)^ \* ?", "", comment[2:-2]).strip(" \n")):
            if paragraph.startswith("  "):
                self.text.append(f"@verbatim\n{paragraph}\n@endverbatim")
            elif paragraph:
                self.read(LABEL_WITHIN.sub("\n", paragraph).split("\n"))

    def read(self, lines):
        parts = []  # the table it goes to, the key, the text
        for line in lines:
            if match := ARGUMENT.fullmatch(line):
                parts.append([self.arguments, match[1], match[2]])
            elif match := LABEL.fullmatch(line):
                parts.append([self.labels, match[1], capitalised(match[2])])
            elif parts and (line.startswith(" ") or parts[-1][0] is not self.arguments):
                parts[-1][2] += " " + line.strip()
            else:
                parts.append([None, "", line])
        if not self.text and parts[0][1] == "Returns":
            self.result = escaped(parts[0][2][:1].lower() + parts[0][2][1:])
        for table, key, text in parts:
            if table is None:
                self.text.append(escaped(text))
            else:
                table.update((name, escaped(text)) for name in key.split(", "))

    def add(self, other):
        self.text += other.text
        self.arguments.update(other.arguments)
        self.labels.update(other.labels)

    def inherit(self, other):
        for name, text in self.arguments.items():
            above = other.arguments.get(name, "see above").rstrip(".")
            self.arguments[name] = text.replace("see above", above)
        self.labels = {**other.labels, **self.labels}

    def brief_and_rest(self):
        """The first sentence; what is returned when the comment begins with that."""
        text = ["Returns " + self.result] if self.result else self.text
        brief, *rest = re.split(r"(?<=\.) (?=[A-Z(&])", text[0], maxsplit=1)
        return as_brief(brief), (self.text if self.result else rest + text[1:])

    def paragraphs(self):
        return [f"@par {label}\n{self.labels[label]}" for label in PARAGRAPHS if label in self.labels]


def block(*paragraphs):
    return "/** " + "\n\n".join(paragraphs) + " */\n"


def declarations(lines):
    """The declarations in the lines below a comment."""
    taken, depth = "", 0
    for line in lines:
        taken += line
        depth += len(re.findall("[{(]", line)) - len(re.findall("[})]", line))
        complete = not line.endswith("\\\n") if taken.startswith("#") else re.search(r";(\s*/\*.*)?$", line)
        if complete and depth == 0:
            yield taken
            taken = ""


def parameters(declaration):
    arguments = re.search(r"\((.*)\)", re.sub(r"\)\s*\([^()]*\)", ")", declaration), re.S)
    return re.findall(r"\w+|\.\.\.", arguments[1] if arguments else "")


def record(comment, declaration):
    """A structure, an enumeration, a type, a variable."""
    brief, rest = comment.brief_and_rest()
    rest += [f"@par {name}\n{text}" for name, text in comment.arguments.items()]
    if "Returns" in comment.labels and not comment.result:
        rest.append(f"@par Returns\n{comment.labels['Returns']}")
    declaration = re.sub(r"(?s)(?<=/\* ).*?(?= \*/)", lambda note: escaped(note[0]), declaration)
    lines = []
    for line in declaration.split("\n"):
        if match := FIELDS.match(line):  # one comment for several fields
            note = line[match.end():].strip().replace("/* ", "/** ")
            lines += [f"{note} {match[1]}{name};" for name in match[2].split(", ")]
        else:
            lines.append(line.replace("/* ", "/** " if line.lstrip().startswith("/*") else "/**< "))
    return block(brief, *rest, *comment.paragraphs()) + "\n".join(lines)


def page(comment, found):
    """Functions, and macros that stand for them."""
    names = [re.search(r"(\w+)(?=\()", declaration)[1] for declaration in found]
    for outer in (section, header):
        comment.inherit(outer)
    brief, rest = comment.brief_and_rest()
    output = [block(f"@defgroup {names[0]} {', '.join(names)}\n@brief {brief}", *rest, *section.text,
                    *comment.paragraphs(), f"@par Header\n<tt>\\#include &lt;qvlib/{path.name}&gt;</tt>, "
                    f"described in @ref {group} \"{group}(3)\"", "@{")]
    known = {**header.arguments, **section.arguments, **comment.arguments}
    strays = set(comment.arguments) - {name for declaration in found for name in parameters(declaration)}
    for declaration in found:
        own, note = parameters(declaration), re.search(r"/\* (.*?) \*/", declaration, re.S)
        gives_result = not re.match(r"void \w", declaration) or len(found) == 1
        lines = [f"@brief {as_brief(capitalised(escaped(note[1])))}."] if note else []
        lines += [f"@param {name} {text}" for name, text in known.items() if name in own or name in strays]
        if "Returns" in comment.labels and gives_result:
            lines.append(f"@return {comment.labels['Returns']}")
        lines = lines or [f"@brief {brief}"]
        output.append(block("\n".join(lines)) + re.sub(r"\s*/\*.*?\*/", "", declaration, flags=re.S))
    return "".join(output) + "/** @} */\n"


path = pathlib.Path(sys.argv[1])
functions = {name for header in path.parent.glob("*.h")
             for name in re.findall(r"(?m)^\w[\w *]*?\b(\w+)\(", header.read_text())}
group = "qvlib_" + path.stem
lines = MARKS.sub("", IN_PLACE.sub("", path.read_text())).splitlines(keepends=True)
header = section = None
output = []
while lines:
    if not lines[0].startswith("/*"):
        output.append(lines.pop(0))
        continue
    end = next(i for i, line in enumerate(lines) if "*/" in line) + 1
    text, lines = "".join(lines[:end]).rstrip("\n"), lines[end:]
    comment = Comment(text)
    if header is None:
        header, section = comment, Comment()
        brief, rest = comment.brief_and_rest()
        rest += [f"@par {name}\n{text}" for name, text in comment.arguments.items()]
        output.append(block(f"@file\n@brief See @ref {group}."))
        output.append(block(f"@defgroup {group} {group}\n@brief {brief}", *rest, *comment.paragraphs(), "@{"))
    elif SECTION.fullmatch(text):
        section = Comment()
    elif lines[0] == "\n":
        section.add(comment)
    else:
        end = next(i for i, line in enumerate(lines) if line == "\n" and not sum(
            before.count("{") - before.count("}") for before in lines[:i]) or line.startswith("/*"))
        found, lines = list(declarations(lines[:end])), lines[end:]
        if re.match(r"typedef|extern|enum|(?:struct|union) \w+(?: \{|;)", found[0]):
            output += [record(comment, declaration) for declaration in found]
        else:
            output.append(page(comment, found))
print("".join(output) + "/** @} */")
