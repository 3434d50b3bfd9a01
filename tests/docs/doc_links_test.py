#!/usr/bin/env python3
"""The links of README.md and docs/*.md lead somewhere: markdown-link-check
checks, offline, every relative link and anchor within a page (web links are
not followed); anchors into another page are checked here, since the checker
does not look inside the target. Exits 77 (skipped) without the checker.
Usage: doc_links_test.py SOURCE_DIR"""
import glob, os, re, subprocess, sys

src = sys.argv[1]
checker = os.path.join(src, ".tools/node_modules/.bin/markdown-link-check")
if not os.access(checker, os.X_OK):
    print(f"SKIPPED: {checker} is missing; scripts/install-deps installs it with npm")
    sys.exit(77)

pages = [os.path.join(src, "README.md")] + sorted(glob.glob(os.path.join(src, "docs/*.md")))
config = os.path.join(os.path.dirname(os.path.abspath(__file__)), "links.json")
run = subprocess.run([checker, "-q", "-c", config, *pages], capture_output=True, text=True)
out = run.stdout + run.stderr
# Some releases of the checker exit 0 on dead links: its report counts too.
failed = run.returncode != 0 or "dead links found" in out
print(out.strip())


def anchors(page):
    """The anchors of a page's headings, as the usual code hosts make them."""
    text = re.sub(r"```.*?```", "", open(page, encoding="utf-8").read(), flags=re.S)
    return {re.sub(r"[^\w\- ]", "", h.strip().lower()).replace(" ", "-")
            for h in re.findall(r"^#+ (.*)$", text, flags=re.M)}


for page in pages:
    text = re.sub(r"```.*?```", "", open(page, encoding="utf-8").read(), flags=re.S)
    for target, anchor in re.findall(r"\]\(([^)#:\s]+\.md)#([^)\s]+)\)", text):
        path = os.path.normpath(os.path.join(os.path.dirname(page), target))
        if os.path.exists(path) and anchor not in anchors(path):
            print(f"{os.path.relpath(page, src)}: no heading for {target}#{anchor}")
            failed = True
sys.exit(1 if failed else 0)
