"""The commands of a documentation page, for tests that carry them out word for word."""
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


def chapter(page, title):
    """The text below a heading, up to the next one of the same or a higher level."""
    text = (ROOT / page).read_text()
    level = title.split(" ", 1)[0]
    _, found, rest = text.partition(title + "\n")
    assert found, "%s has no chapter %r" % (page, title)
    return re.split(r"^#{1,%d} " % len(level), rest, maxsplit=1, flags=re.M)[0]


def commands(text):
    """The indented lines, without what stands behind two blanks and "#"."""
    return [line.split("  #")[0].strip() for line in text.splitlines() if line.startswith("    ") and line.strip()]
