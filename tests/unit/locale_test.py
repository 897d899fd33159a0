#!/usr/bin/env python3
"""Every text key the code uses is in en-US.ini; each translation has exactly its keys and each
text the English one's %1, %2; the errors' English words are the English texts."""

import re
import sys
from pathlib import Path

root, problems = Path(sys.argv[1]), []


def read(path):
    texts = {}
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        found = re.fullmatch(r'([A-Za-z][\w.]*)="(.*)"', line)  # unquoted, the host ends it at a blank
        if line.strip() and (not found or found[1] in texts):
            problems.append(f"{path.name}:{number}: malformed or repeated: {line}")
        elif found:
            texts[found[1]] = found[2]
    return texts


english = read(root / "data/locale/en-US.ini")
groups = {key.split(".")[0] for key in english}
for source in sorted((root / "src").rglob("*.[ch]*")):
    code = source.read_text(encoding="utf-8")
    used = set(re.findall(r'\b(?:text|obs_module_text)\(\s*"([^"]+)"', code))
    used |= {key for key in re.findall(r'"([A-Za-z]+\.[\w.]+)"', code) if key.split(".")[0] in groups}
    problems += [f"{source.relative_to(root)}: no text for {key}" for key in sorted(used - english.keys())]

# The English words of the errors (for the log and websocket clients) are the English texts.
errors = (root / "src/base/errors.cpp").read_text(encoding="utf-8")
for key, words in re.findall(r'"(Error\.\w+)",\s*((?:"(?:[^"\\]|\\.)*"\s*)+)\}', errors):
    joined = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', words))
    if english.get(key) != joined:
        problems.append(f"errors.cpp: the English words of {key} differ from en-US.ini")

for path in sorted((root / "data/locale").glob("*.ini")):
    texts = read(path)
    if texts.keys() != english.keys():
        problems.append(f"{path.name}: missing {sorted(english.keys() - texts.keys())}, "
                        f"unknown {sorted(texts.keys() - english.keys())}")
    problems += [f"{path.name}: {key} lacks the English text's placeholders" for key in english.keys() & texts.keys()
                 if set(re.findall(r"%\d", english[key])) != set(re.findall(r"%\d", texts[key]))]

print("\n".join(problems) or "locale files complete")
sys.exit(1 if problems else 0)
