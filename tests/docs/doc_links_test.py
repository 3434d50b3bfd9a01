#!/usr/bin/env python3
"""The links of README.md and docs/*.md lead somewhere. markdown-link-check
checks every relative link and anchor within a page, offline (links.json
skips web links); anchors into another page, which it does not look into,
are checked here. Exits 77 (skipped) without the checker.
Usage: doc_links_test.py SOURCE_DIR"""
import glob, os, re, subprocess, sys

src = os.path.abspath(sys.argv[1])
checker = os.path.join(src, ".tools/node_modules/.bin/markdown-link-check")
if not os.access(checker, os.X_OK):
    sys.exit(print(f"SKIPPED: no {checker}; scripts/install-deps installs it with npm") or 77)
pages = [os.path.join(src, "README.md")] + sorted(glob.glob(os.path.join(src, "docs/*.md")))
config = os.path.join(os.path.dirname(__file__), "links.json")
run = subprocess.run([checker, "-q", "-c", config, *pages], capture_output=True, text=True)
print(run.stdout + run.stderr)
# Some releases of the checker exit 0 after dead links.
failed = run.returncode != 0 or "dead links found" in run.stdout + run.stderr
text = {p: re.sub(r"```.*?```", "", open(p, encoding="utf-8").read(), flags=re.S) for p in pages}
for page in pages:
    for target, anchor in re.findall(r"\]\(([^)#:\s]+\.md)#([^)\s]+)\)", text[page]):
        path = os.path.normpath(os.path.join(os.path.dirname(page), target))
        headings = re.findall(r"^#+ (.*)$", text.get(path, ""), flags=re.M)
        anchors = {re.sub(r"[^\w\- ]", "", h.lower()).replace(" ", "-") for h in headings}
        if path in text and anchor not in anchors:
            print(f"{os.path.relpath(page, src)}: no heading for {target}#{anchor}")
            failed = True
sys.exit(1 if failed else 0)
