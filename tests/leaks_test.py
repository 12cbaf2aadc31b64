"""Each name of the leak suppressions has a test that holds it, named in front of it, and a function that brings it about."""

import glob
import os
import re
import sys

directory = os.path.dirname(os.path.abspath(__file__))
failures = []


def source_of(pattern):
    return "".join(open(path).read() for path in sorted(glob.glob(os.path.join(directory, pattern))))


tests = set(re.findall(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", source_of("*_test.cpp"), re.MULTILINE))
# SCENARIO(name) makes a function play_name().
scenarios = source_of("allocations/*.cpp").replace("SCENARIO(", "play_").replace(")\n{", "()\n{")
sources = {
    "leaks.supp": source_of("*_test.cpp") + scenarios,
    "tool_leaks.supp": source_of("../tools/*.cpp") + source_of("../src/*.cpp") + source_of("../src/corelink/*.cpp"),
}
for suppressions, source in sources.items():
    reason = ""
    for line in open(os.path.join(directory, suppressions)):
        if line.startswith("#"):
            reason += line
            continue
        name = line.strip().removeprefix("leak:")
        if not tests & set(re.findall(r"(\w+)\.(\w+)$", reason, re.MULTILINE)):
            failures.append(f"{suppressions}: no test is named in front of {name}")
        if not re.search(rf"\b{name}\(", source):
            failures.append(f"{suppressions}: there is no function {name}")
        reason = ""
sys.exit("\n".join(failures) or 0)
