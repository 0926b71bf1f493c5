#!/usr/bin/env python3
"""Checks that the documents are true where a program can see it.

    check_documents.py ROOT [TOOL]   checks the documents at ROOT; with TOOL also what they say of it
    check_documents.py --self-test   checks the checks, on texts that must pass and must not

Prints "file: message" for each finding. Exit status: 0 nothing found, 1 something found, 2 wrong
use.
"""

import json
import re
import subprocess
import sys
import tempfile
import zlib
from pathlib import Path

CODE_FOLDERS = ("support", "hash", "data", "io", "manager", "selfcheck", "tools", "tests", "bench",
                "examples")
LOWER_FOLDERS = ("support", "hash", "data", "io")
CODE_SPAN = re.compile(r"`([^`\n]+)`")
FENCE = re.compile(r"^ *```.*?^ *```", re.S | re.M)


def table_after(text, heading):
    """The cells of the rows of the first table after a heading, without its two head rows."""
    start = text.find(f"\n{heading}\n")
    if start < 0:
        return []
    rows = []
    for line in text[start + len(heading) + 2:].split("\n"):
        if line.startswith("|"):
            rows.append([cell.strip() for cell in line.strip("|").split("|")])
        elif rows or line.startswith("#"):
            break
    return rows[2:]


def anchor_of(heading):
    """The anchor that Markdown viewers give to a heading."""
    text = re.sub(r"[`*]", "", heading.strip().lower())
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def check_links(documents, exists):
    """Every relative link leads to a file, and to a heading in it. `exists` takes a path."""
    for name, text in documents.items():
        for target in re.findall(r"\]\(([^)\s]+)\)", FENCE.sub("", text)):
            if re.match(r"\w+:", target):
                continue
            path, _, anchor = target.partition("#")
            goal = name
            if path:
                parts = []
                for part in (name.split("/")[:-1] + path.split("/")):
                    parts = parts[:-1] if part == ".." else parts + [part] * (part != ".")
                goal = "/".join(parts)
            if not exists(goal):
                yield name, f"the link {target} leads nowhere"
            elif anchor and goal in documents:
                headings = re.findall(r"^#+ (.*)$", FENCE.sub("", documents[goal]), re.M)
                if anchor not in [anchor_of(heading) for heading in headings]:
                    yield name, f"the link {target} names no heading of {goal}"


def check_where_is(text, sources):
    """Each file of the table "Where is …?" exists and has the functions that the table names."""
    rows = table_after(text, "## Where is …?")
    if not rows:
        yield "the table \"Where is …?\" is missing"
    for question, file, functions in rows:
        path = file.strip("`")
        if path not in sources:
            yield f"{question}: there is no {path}"
            continue
        for function in CODE_SPAN.findall(functions):
            if not re.search(rf"\b(?:struct {function}\b|{function}\s*\()", sources[path]):
                yield f"{question}: {path} has no {function}"


def check_paths(documents, exists):
    """Every path in a code span that begins with a folder of the project exists."""
    start = re.compile(rf"(?:{'|'.join(CODE_FOLDERS)}|docs|scripts|cmake)/[\w./-]+\.\w+$")
    for name, text in documents.items():
        for span in CODE_SPAN.findall(FENCE.sub("", text)):
            if start.match(span) and not exists(span):
                yield name, f"there is no {span}"


def check_names(documents, identifiers):
    """Every C++ name in a code span is a name of the code."""
    for name, text in documents.items():
        for span in CODE_SPAN.findall(FENCE.sub("", text)):
            if not re.fullmatch(r"[A-Za-z_]\w*(?:::\w+)*(?:\(\))?", span):
                continue
            last = span.split("::")[-1].rstrip("()")
            looks_like_code = re.search(r"[a-z][A-Z]|^m_", last) or "::" in span
            if looks_like_code and last not in identifiers:
                yield name, f"the code has no {span}"


def check_folders(text, folders):
    named = [cell.strip("`/") for cell, _ in table_after(text, "## Folders")]
    if sorted(named) != sorted(folders):
        yield f"the folders are {sorted(folders)}, and the table has {sorted(named)}"


def check_component(text, sources):
    """The two numbers that show that the lower folders and the manager are one component."""
    calls = sum(source.count("ZebDataBlockManager::instance()")
                for path, source in sources.items()
                if path.split("/")[0] in LOWER_FOLDERS and path.endswith(".cpp"))
    friends = len(re.findall(r"^\s*friend class ", sources["manager/ZebDataBlockManager.h"], re.M))
    for pattern, count in ((r"singleton in (\d+)\s+places", calls), (r"has (\d+) friends", friends)):
        match = re.search(pattern, text)
        if not match or int(match.group(1)) != count:
            yield f"the number in \"{pattern}\" is {count}"


def check_presets(documents, presets):
    for name, text in documents.items():
        for preset in re.findall(r"--preset[ =](\w+)", text):
            if preset not in presets["configure"] | presets["test"]:
                yield name, f"there is no preset {preset}"
    named = {row[0].strip("`")
             for row in table_after(documents["CONTRIBUTING.md"], "## Build and test")}
    if named != presets["configure"]:
        yield "CONTRIBUTING.md", f"presets {sorted(presets['configure'])}, in the table {sorted(named)}"


def check_api(text, library):
    headers = re.search(r"set\(ZEBTDX_PUBLIC_HEADERS\s+(.*?)\)", library, re.S).group(1).split()
    named = [span for span in re.findall(r"^\| `([^`]+)`", text, re.M)]
    if sorted(named) != sorted(headers):
        yield f"differs from the installed headers in {sorted(set(named) ^ set(headers))}"
    if f"{len(headers)} headers are installed" not in text:
        yield f"{len(headers)} headers are installed"


def check_damage(text, source):
    """The table of OPERATIONS.md lists the tool's codes of damage, and no other."""
    codes = re.findall(r'case \w*BlockFinding::(\w+):\s*return \{"(\w+)"', source)
    names = [name for name, _ in codes]
    damage = {code for name, code in codes
              if names.index("NoPlace") <= names.index(name) <= names.index("Unreadable")}
    rows = table_after(text, "## After a crash, and now and then")
    named = {span for row in rows for span in CODE_SPAN.findall(row[0])}
    if named != damage:
        yield f"the codes of verify differ in {sorted(named ^ damage)}"


def check_ten_numbers(text):
    """Each of the ten numbers is in the section that the row names, or is the ratio of two that
    are."""
    rows = table_after(text, "## The ten numbers that matter")
    if len(rows) != 10:
        yield f"{len(rows)} numbers, not ten"
    for what, number, source in rows:
        sections = re.findall(r"^#+ ([^\n]*)\n(.*?)(?=^#|\Z)", text, re.S | re.M)
        name = source.split(",")[0]
        section = "".join(body for heading, body in sections if heading.startswith(name))
        if not section:
            yield f"{what}: there is no section {name}"
        pair = re.search(r"\((\d+) µs, (\d+) µs\)", number)
        ratio = f"{int(pair.group(1)) / int(pair.group(2)):.2f}" if pair else ""
        for figure in re.findall(r"\d[\d.,]*\d", number):
            if figure != ratio and figure not in section:
                yield f"{what}: {figure} is not in the section {name}"


def worked_file(text):
    """The bytes of the worked file in FORMAT.md."""
    section = text[text.index("## A worked file"):]
    block = re.search(r"^```\n(.*?)^```", section, re.S | re.M).group(1)
    digits = "".join(re.match(r"(?:[0-9a-f]{2}(?: |$))+", line).group(0)
                     for line in block.strip().split("\n"))
    return bytes.fromhex(digits)


def plain_example():
    return (b"All work and no play. " * 50)[:1000]


def check_worked_file(text):
    """The worked file decodes, by the rules of the page, to the bytes that the page names."""
    data = worked_file(text)
    size, length = int.from_bytes(data[:8], "little"), int.from_bytes(data[8:12], "little")
    plain = zlib.decompress(data[16:])
    if (size, length, plain) != (1000, len(data) - 12, plain_example()):
        yield "the worked file does not hold what the page says"
    if int.from_bytes(data[12:16], "big") != 1000 or f"of {len(data)} bytes" not in text:
        yield "a size in the worked file is wrong"


def check_tool(documents, tool):
    """What the documents say of the tool: the worked file, the sub-commands."""
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "play").write_bytes(plain_example())
        subprocess.run([tool, "ingest", "play", "--root", "cache", "--manifest", "manifest"],
                       cwd=folder, check=True, capture_output=True)
        wanted = worked_file(documents["docs/FORMAT.md"])
        files = [path for path in Path(folder, "cache").rglob("2200410083-*")]
        if [path.parent.name for path in files] != ["3"] or files[0].read_bytes() != wanted:
            yield "docs/FORMAT.md", "the store writes another file than the worked one"
    printed = subprocess.run([tool, "--help"], check=True, capture_output=True, text=True).stdout
    commands = set(re.findall(r"^  ([a-z]+)  ", printed.split("Subcommands:")[1], re.M))
    cells = [row[0] for row in table_after(documents["README.md"], "## The tool")]
    named = {span.split()[0] for cell in cells for span in CODE_SPAN.findall(cell)}
    if named != commands:
        yield "README.md", f"the tool's sub-commands are {sorted(commands)}, not {sorted(named)}"


def findings(root, tool):
    documents = {path.relative_to(root).as_posix(): path.read_text(encoding="utf-8")
                 for path in [*root.glob("*.md"), *root.glob("docs/*.md")]}
    sources = {path.relative_to(root).as_posix(): path.read_text(encoding="utf-8")
               for folder in CODE_FOLDERS for suffix in ("h", "cpp")
               for path in root.glob(f"{folder}/**/*.{suffix}")}
    build = [path.read_text(encoding="utf-8") for path in root.glob("cmake/*")]
    identifiers = set(re.findall(r"\w+", "\n".join([*sources.values(), *build])))
    folders = [path.name for path in root.iterdir()
               if path.is_dir() and not path.name.startswith((".", "build"))]
    presets = json.loads((root / "CMakePresets.json").read_text())
    names = {kind: {preset["name"] for preset in presets[f"{kind}Presets"]
                    if not preset.get("hidden")} for kind in ("configure", "test")}

    def exists(path):
        return (root / path).exists()

    def of(name, messages):
        return ((name, message) for message in messages)

    architecture = documents["docs/ARCHITECTURE.md"]
    library = (root / "cmake/ZebTdxLibrary.cmake").read_text()
    yield from check_links(documents, exists)
    yield from check_paths(documents, exists)
    # The changelog names what former versions had.
    current = {name: text for name, text in documents.items() if name != "CHANGELOG.md"}
    yield from check_names(current, identifiers)
    yield from check_presets(documents, names)
    yield from of("docs/ARCHITECTURE.md", check_where_is(architecture, sources))
    yield from of("docs/ARCHITECTURE.md", check_folders(architecture, folders))
    yield from of("docs/ARCHITECTURE.md", check_component(architecture, sources))
    yield from of("docs/API.md", check_api(documents["docs/API.md"], library))
    yield from of("docs/FORMAT.md", check_worked_file(documents["docs/FORMAT.md"]))
    tool_sources = "\n".join(text for path, text in sources.items() if path.startswith("tools/"))
    yield from of("docs/OPERATIONS.md", check_damage(documents["docs/OPERATIONS.md"], tool_sources))
    yield from of("docs/PERFORMANCE.md", check_ten_numbers(documents["docs/PERFORMANCE.md"]))
    if tool:
        yield from check_tool(documents, str(Path(tool).resolve()))


def self_test():
    """(name, findings) must be empty for the first text of each pair and not for the second."""
    where = "\n## Where is …?\n\n| Q | F | f |\n|---|---|---|\n| a | `io/A.cpp` | `{}` |\n"
    api = "2 headers are installed\n| `a/A.h` | x |\n{}"
    library = "set(ZEBTDX_PUBLIC_HEADERS\n  a/A.h\n  a/B.h)"
    folders = "\n## Folders\n\n| Folder | What |\n|---|---|\n| `io/` | x |\n{}"
    component = {"io/A.cpp": "ZebDataBlockManager::instance();",
                 "manager/ZebDataBlockManager.h": "    friend class A;\n"}
    numbers = "the singleton in 1 places and has {} friends"
    presets = {"configure": {"dev"}, "test": {"dev"}}
    table = "\n## Build and test\n\n| P | W |\n|---|---|\n| `dev` | x |\n\n--preset {}\n"
    damage = "\n## After a crash, and now and then\n\n| R | W |\n|---|---|\n| {}, `no` | x |\n"
    codes = "".join(f'case BlockFinding::{name}:\n        return {{"{code}", ""}};'
                    for name, code in (("Sound", "ok"), ("NoPlace", "no"), ("Unreadable", "bad")))
    ten = ("\n## The ten numbers that matter\n\n| W | N | F |\n|---|---|---|\n" +
           "| a | {} (300 µs, 200 µs) | Speed, row |\n" * 10 + "\n## Speed\n\n300 µs and 200 µs\n")
    worked = (b"\xe8\3" + bytes(6)).hex(" ")
    stream = zlib.compress(plain_example())
    body = (len(stream) + 4).to_bytes(4, "little") + (1000).to_bytes(4, "big") + stream
    page = f"of {8 + len(body)} bytes\n## A worked file\n```\n{worked}   {{}}\n{body.hex(' ')}\n```\n"
    names = {"io/A.h"}.__contains__
    cases = (
        ("links", lambda t: check_links({"docs/a.md": t, "b.md": "# Two words\n"},
                                        {"docs/a.md", "b.md"}.__contains__),
         "[x](../b.md#two-words) [y](https://c.d)", "[x](../b.md#three)"),
        ("where is", lambda t: check_where_is(where.format(t), {"io/A.cpp": "int f(int)"}), "f", "g"),
        ("paths", lambda t: check_paths({"a.md": t}, names), "`io/A.h`", "`io/B.h`"),
        ("names", lambda t: check_names({"a.md": t}, {"addBlock"}), "`addBlock()` `x`", "`addBlocks`"),
        ("folders", lambda t: check_folders(folders.format(t), ["io"]), "", "| `a/` | y |\n"),
        ("component", lambda t: check_component(numbers.format(t), component), "1", "2"),
        ("presets", lambda t: check_presets({"CONTRIBUTING.md": table.format(t)}, presets),
         "dev", "fast"),
        ("api", lambda t: check_api(api.format(t), library), "| `a/B.h` | y |\n", ""),
        ("damage", lambda t: check_damage(damage.format(t), codes), "`bad`", "`bad`, `worse`"),
        ("ten numbers", lambda t: check_ten_numbers(ten.replace("{}", t)), "1.50", "1.51"),
        ("worked file", lambda t: check_worked_file(page.replace("e8 03", t)), "e8 03", "e9 03"),
    )
    failures = 0
    for name, check, good, bad in cases:
        for text, is_good in ((good, True), (bad, False)):
            found = list(check(text))
            if bool(found) == is_good:
                print(f"{name}: {found} for {text!r}")
                failures += 1
    print(f"self-test: {failures} failures in {2 * len(cases)} texts")
    return 1 if failures else 0


def main(arguments):
    if arguments == ["--self-test"]:
        return self_test()
    if len(arguments) not in (1, 2) or arguments[0].startswith("-"):
        print(__doc__, file=sys.stderr)
        return 2
    count = 0
    for name, message in findings(Path(arguments[0]), arguments[1] if arguments[1:] else None):
        print(f"{name}: {message}")
        count += 1
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
