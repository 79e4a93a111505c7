"""Every text item of the interface shows its text as plain text.

Names come from outside: guests' phones, the sound server, the remote. A Qt
Quick text item left at its default guesses whether its text is markup, and
shown as markup a name can load images from any address. The rule is one for
all: each Label, Text and TextEdit in the QML sets textFormat to
Text.PlainText.

usage: plain_text_check.py SOURCE_DIR"""
import pathlib
import re
import sys

OPENS = re.compile(r"^(\s*)(?:[\w.]+:\s*)?(Label|Text|TextEdit)\s*\{(.*)$")
PLAIN = "textFormat: Text.PlainText"


def problems(path):
    lines = path.read_text().splitlines()
    for i, line in enumerate(lines):
        m = OPENS.match(line)
        if m:
            indent, kind, rest = m.groups()
            if rest.strip().endswith("}"):
                block = rest
            else:
                block = []
                for later in lines[i + 1:]:
                    if later.startswith(indent + "}") and not later.startswith(indent + " "):
                        break
                    block.append(later)
                block = "\n".join(block)
            if PLAIN not in block:
                yield f"{path}:{i + 1}: a {kind} without {PLAIN}"


def main():
    root = pathlib.Path(sys.argv[1]) / "src" / "ui"
    found = [p for qml in sorted(root.rglob("*.qml")) for p in problems(qml)]
    for p in found:
        print(p)
    if found:
        sys.exit(1)
    print(f"ok: every text item under {root} is plain text")


main()
