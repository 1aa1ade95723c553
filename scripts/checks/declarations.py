"""What the public headers export: the declarations marked KO_API."""
import pathlib, re

root = pathlib.Path(__file__).resolve().parents[2]


def headers():
    return sorted((root / "include").rglob("*.h"))


def declared(header):
    """Yields (name, line, commented) for each declaration marked KO_API in a header."""
    lines = header.read_text().splitlines()
    for number, line in enumerate(lines):
        if not re.match(r"(extern )?KO_API\b", line):
            continue
        text = " ".join(lines[number:number + 12])
        text = re.sub(r"/\*.*?\*/", "", text)
        text = re.sub(r"KO_PRINTF\([^)]*\)|KO_NORETURN|KO_API|__attribute__\(\(.*?\)\)", "", text)
        text = text.split(";")[0].split("{")[0]
        pointer = re.search(r"\(\s*\*\s*(\w+)\s*\)\s*\(", text)
        plain = re.search(r"(\w+)\s*(\(|\[|=|$)", text.strip())
        name = pointer.group(1) if pointer and pointer.start() < plain.start() + 2 else plain.group(1)
        above = number - 1
        # A group of declarations under one comment counts as commented.
        while above >= 0 and lines[above] and not lines[above].rstrip().endswith("*/"):
            above -= 1
        yield name, number + 1, above >= 0 and lines[above].rstrip().endswith("*/")
