"""Reads ctest's JUnit file: prints "PASSED FAILED SKIPPED", then the skipped tests with their reasons. With --failed
before the file: prints a regular expression for ctest that the failed tests match."""

import re
import sys
import xml.etree.ElementTree as tree


def reason(case):
    output = case.findtext("system-out") or ""
    for pattern in (r": Skipped\n(.+)", r"skipped '(.+)'", r"\.\.\. skipped [\"'](.+)[\"']"):
        found = re.search(pattern, output)
        if found:
            return found.group(1)
    return " ".join(output.split())[:300] or "no reason given"


def expression(names):
    """A regular expression of ctest's kind for just these names."""
    return "^(%s)$" % "|".join(re.sub(r"([^\w/ ])", r"\\\1", name) for name in names) if names else "^$"


def main():
    if sys.argv[1] == "--failed":
        try:
            cases = list(tree.parse(sys.argv[2]).getroot().iter("testcase"))
        except (OSError, tree.ParseError):
            cases = []  # an expression that no test matches
        print(expression([case.get("name") for case in cases if case.get("status") == "fail"]))
        return
    try:
        cases = list(tree.parse(sys.argv[1]).getroot().iter("testcase"))
    except (OSError, tree.ParseError) as error:
        print("0 1 0")
        print("  No test results: %s" % error)
        return
    skipped = [case for case in cases if case.get("status") in ("notrun", "disabled")]
    failed = [case for case in cases if case.get("status") == "fail"]
    print(len(cases) - len(skipped) - len(failed), len(failed), len(skipped))
    for case in skipped:
        print("  skipped  %s: %s" % (case.get("name"), reason(case)))


if __name__ == "__main__":
    main()
