#!/usr/bin/env python3
"""Checks what the formatter cannot: limits, the direction of includes, the shape of headers, words.

    check_style.py ROOT              checks the tree at ROOT
    check_style.py ROOT FOLDER...    prints only the findings in these folders
    check_style.py --self-test       checks the checks, on snippets that must pass and must not

Prints "file:line: message" for each finding. Exit status: 0 nothing found, 1 something found,
2 wrong use. Needs only the standard library of Python 3.
"""

import re
import sys
from pathlib import Path

# Set before the imports from this folder: they leave no cached module in the tree.
sys.dont_write_bytecode = True
import plain_english  # noqa: E402

MAX_COLUMNS = 100
MAX_FILE_LINES = 600
MAX_FUNCTION_LINES = 70

# The folders that a folder may include from, besides itself: for headers and for sources.
ALLOWED_INCLUDES = {
    "support": (),
    "hash": ("support",),
    "data": ("support", "hash"),
    "io": ("support", "hash", "data"),
    # The manager hands out references and accessors, and owns the disk threads.
    "manager": ("support", "hash", "data", "io"),
    "selfcheck": ("support", "hash", "data", "io", "manager"),
}

# Includes that go upward, each with its reason: the whole list, for headers and sources.
# docs/ARCHITECTURE.md, "One component", explains why there are any.
MANAGER = "manager/ZebDataBlockManager.h"
DELETE_LOCK = "the delete lock is a member of the manager"
LAST_RELEASE = "the last release of a hash frees its block, which the manager owns"
RESIDENCY = "the manager owns what is resident, and pins it for accessors and references"
ADMISSION = "finished bytes become a block of the store"
DISK_THREADS = "a disk thread reports to the store that owns it"
UPWARD_INCLUDES = {
    ("data/ZebDataReference.h", MANAGER):
        "preload() takes an enumeration that is nested in the manager",
    ("support/ZebDataDeleteLocker.cpp", MANAGER): DELETE_LOCK,
    ("support/ZebDeleteMutexLocker.cpp", MANAGER): DELETE_LOCK,
    ("hash/ZebDataHash_Counting.cpp", MANAGER): LAST_RELEASE,
    ("hash/ZebDataHash_Pinning.cpp", MANAGER): "a thread that has noted many uses has the manager drain them",
    ("data/ZebConstAccessor.cpp", MANAGER): RESIDENCY,
    ("data/ZebDataBlock.cpp", MANAGER): "a block may not be larger than the store's memory limit",
    ("data/ZebHashingJob.cpp", MANAGER): ADMISSION,
    ("data/ZebModifyAccessor.cpp", MANAGER): ADMISSION,
    ("io/ZebBlockFilePath.cpp", "manager/ZebBuildFilename.h"):
        "the place of a block's file is part of the manager's public interface",
    ("io/ZebDataBlockWriteRequest.cpp", MANAGER): DISK_THREADS,
}

# Headers that are not named after one declaration, each with its reason.
FREE_HEADER_NAMES = {
    "support/ZebThreadSafety.h": "macros",
    "manager/ZebSystemMemory.h": "five probes, each a function with a name of its own",
}

# Files that may name a project header without its folder, each with its reason.
SHORT_INCLUDES = {
    "tests/package/main.cpp": "a host may write either form, and this file tests both",
}

THIS_FILE = "scripts/check_style.py"
SUBSYSTEMS = tuple(ALLOWED_INCLUDES)
CODE_FOLDERS = SUBSYSTEMS + ("tools", "tests", "bench", "examples")
TEXT_FOLDERS = CODE_FOLDERS + (".ci", ".github", "cmake", "docs", "scripts")
CODE_SUFFIXES = (".h", ".cpp")

# Made by the build, so no walk over the tree finds them.
GENERATED_HEADERS = {"ZebTdxExport.h": "support", "ZebTdxVersion.h": "support"}

# Paths of one machine, which no text file contains: (pattern, message). The patterns are written so
# that they do not find themselves.
FORBIDDEN_TEXT = (
    (re.compile(r"(?<![\w.})-])/(?:home|Users)/[A-Za-z0-9_]"), "a path into a user's home"),
    (re.compile(r"(?<![\w.})-])/roo[t]/"), "a path into root's home"),
    (re.compile(r"(?<![\w.})-])/tm[p]/b\w*"), "a path of a build directory"),
    (re.compile(r"(?<![\w.})-])/(?:wor[k](?:space)?|build[s])/"), "a path of a checkout"),
)

LEFT_OVER_NOTE = re.compile(r"\b(TO" r"DO|FIX" r"ME|XX" r"X|HA" r"CK)\b")
WAIVER = re.compile(r"^\s*// style: long function(?:, (?P<reason>\S.*))?$")

def blank(match):
    """Spaces in place of a comment or of what stands between quotes; line breaks stay."""
    text = match.group(0)
    spaces = re.sub(r"[^\n]", " ", text)
    if text.startswith(("//", "/*")):
        return spaces
    return '"' + spaces[1:-1] + '"'


class File:
    """A file with its path relative to the root, its text, and its code without comments."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.lines = text.split("\n")
        if self.lines[-1] == "":
            self.lines.pop()
        parts = path.split("/")
        self.folder = parts[0] if len(parts) > 1 else ""
        self.name = parts[-1]
        self.is_code = self.folder in CODE_FOLDERS and path.endswith(CODE_SUFFIXES)
        self.is_header = self.is_code and path.endswith(".h")
        self.is_library_header = self.is_header and self.folder in SUBSYSTEMS
        self.code = plain_english.COMMENT_OR_TEXT.sub(blank, text) if self.is_code else ""
        self.code_lines = self.code.split("\n")

    def includes(self):
        """(line, opening delimiter, path) of each include that is no comment."""
        for number, line in enumerate(self.lines, 1):
            if self.code_lines[number - 1].lstrip().startswith("#"):
                match = re.match(r'\s*#\s*include\s*(["<])([^">]+)[">]', line)
                if match:
                    yield number, match.group(1), match.group(2)


class Tree:
    """The files of a tree by path, and where each header of the library lies."""

    def __init__(self, files):
        self.files = {file.path: file for file in files}
        self.header_folders = dict(GENERATED_HEADERS)
        for file in files:
            if file.is_library_header:
                self.header_folders[file.name] = file.folder


# The rules. Each yields (line, message) for one file.


def check_length(file, _tree):
    for number, line in enumerate(file.lines, 1):
        if len(line) > MAX_COLUMNS:
            yield number, f"{len(line)} columns, at most {MAX_COLUMNS}"
    if len(file.lines) > MAX_FILE_LINES:
        yield MAX_FILE_LINES + 1, f"{len(file.lines)} lines, at most {MAX_FILE_LINES}"


def check_blanks(file, _tree):
    for number, line in enumerate(file.lines, 1):
        if "\t" in line:
            yield number, "tab"
        if line != line.rstrip():
            yield number, "trailing blanks"
    if not file.text.endswith("\n"):
        yield max(len(file.lines), 1), "no line break at the end of the file"
    elif file.text.endswith("\n\n"):
        yield len(file.lines), "empty line at the end of the file"


def check_notes(file, _tree):
    for number, line in enumerate(file.lines, 1):
        match = LEFT_OVER_NOTE.search(line)
        if match:
            yield number, f"left-over note: {match.group(1)}"


def without_preprocessor(code):
    """The code with directives blanked. Where the branches of a condition open or close different
    braces, only the first branch is left, so that braces balance."""
    result = []
    continued = False
    # For each open condition: braces left open by its first branch, whether this line is left.
    conditions = []
    for line in code.split("\n"):
        directive = None if continued else re.match(r"\s*#\s*(\w+)", line)
        word = directive.group(1) if directive else ""
        if word in ("if", "ifdef", "ifndef"):
            conditions.append([0, True])
        elif word in ("else", "elif") and conditions:
            conditions[-1][1] = conditions[-1][0] == 0
        elif word == "endif" and conditions:
            opened, _ = conditions.pop()
            if conditions:
                conditions[-1][0] += opened
        is_directive = directive is not None or continued
        continued = is_directive and line.endswith("\\")
        is_left = not is_directive and all(left for _, left in conditions)
        if is_left and conditions:
            conditions[-1][0] += line.count("{") - line.count("}")
        result.append(line if is_left else "")
    return "\n".join(result)


ACCESS_LABEL = re.compile(
    r"^.*\b(?:public|protected|private|Q_SIGNALS|signals)(?:\s+(?:Q_SLOTS|slots))?\s*:(?!:)", re.S)
TEMPLATE_HEAD = re.compile(r"\btemplate\s*<(?:[^<>]|<(?:[^<>]|<[^<>]*>)*>)*>")
MACRO_CALL = re.compile(
    r"\b(?:[A-Z_][A-Z0-9_]*|alignas|__attribute__)\s*\((?:[^()]|\([^()]*\))*\)|\[\[.*?\]\]", re.S)
LAMBDA_END = re.compile(
    r"\[[^\[\]]*\]\s*(?:\((?:[^()]|\([^()]*\))*\))?\s*(?:mutable|noexcept|\s)*(?:->[^;{}]*)?$")
BODY_WORDS = ("const", "noexcept", "override", "final", "try", "volatile")


def kind_of_brace(head, in_parentheses):
    """What an opening brace begins that stands after `head`, outside of function bodies."""
    head = head.rstrip()
    if LAMBDA_END.search(head):
        return "lambda"
    if in_parentheses:
        return "value"
    head = TEMPLATE_HEAD.sub(" ", ACCESS_LABEL.sub("", head))
    if re.search(r'\bnamespace\b|\bextern\s*""\s*$|\bextern\s*"\s*"\s*$', head):
        return "scope"
    if re.search(r"\b(?:class|struct|union|enum)\b", head) and "(" not in MACRO_CALL.sub("", head):
        return "scope"
    if "(" not in head:
        return "value"
    if re.search(r"(?<!operator)(?<![=!<>+\-*/%&|^])=(?!=)", head.split("(")[0]):
        return "value"
    # `Class(...) : m_A(a), m_B{`: the brace gives a member its value, and the body follows later.
    last_word = re.search(r"(\w+)$", head)
    after_parameters = head[head.index(")") + 1:] if ")" in head else ""
    if last_word and last_word.group(1) not in BODY_WORDS:
        if re.match(r"(?:\s|noexcept)*:(?!:)", after_parameters):
            return "value"
    return "function"


def bodies(code):
    """(kind, first line, last line) of each function, from its signature to its closing brace, and
    of each class and namespace around them. A lambda counts where no function is around it. Raises
    ValueError where braces do not balance."""
    code = without_preprocessor(code)
    stack = []
    head_start = 0
    parentheses = 0
    in_function = 0
    line, line_position = 1, 0
    for match in re.finditer(r"[(){};]", code):
        sign, position = match.group(0), match.start()
        line += code.count("\n", line_position, position)
        line_position = position
        if sign == "{":
            if in_function:
                in_function += 1
                continue
            kind = kind_of_brace(code[head_start:position], parentheses > 0)
            first = line
            if kind == "function":
                head = code[head_start:position]
                label = ACCESS_LABEL.match(head)
                signature = head[label.end():] if label else head
                first = line - signature.lstrip().count("\n")
            stack.append((kind, first, head_start, parentheses))
            parentheses = 0
            head_start = position + 1
            in_function = 1 if kind in ("function", "lambda") else 0
        elif sign == "}":
            if in_function > 1:
                in_function -= 1
                continue
            if not stack:
                raise ValueError(line)
            in_function = 0
            kind, first, outer_head, parentheses = stack.pop()
            head_start = position + 1
            if kind in ("value", "lambda"):
                head_start = outer_head
            if kind != "value":
                yield kind, first, line
        elif in_function:
            continue
        elif sign == ";":
            if parentheses == 0:
                head_start = position + 1
        else:
            parentheses += 1 if sign == "(" else -1
    if stack:
        raise ValueError(stack[-1][1])


def check_functions(file, _tree):
    waivers = {}
    for number, line in enumerate(file.lines, 1):
        match = WAIVER.match(line)
        if match:
            waivers[number] = match.group("reason")
    used = set()
    understood = set()
    try:
        for kind, first, last in bodies(file.code):
            understood.update(range(first, last + 1))
            length = last - first + 1
            if kind == "scope" or length <= MAX_FUNCTION_LINES:
                continue
            if first - 1 in waivers:
                used.add(first - 1)
            else:
                yield first, f"function of {length} lines, at most {MAX_FUNCTION_LINES}"
    except ValueError as error:
        yield error.args[0], "braces do not balance, functions cannot be measured"
        return
    for number, line in enumerate(file.code_lines, 1):
        # As formatted, this opens a function or a class: none may escape the measure.
        if line == "{" and number not in understood:
            yield number, "what this brace opens cannot be measured"
    for number, reason in waivers.items():
        if not reason:
            yield number, "waiver without a reason"
        elif number not in used:
            yield number, "waiver that no long function needs"


def check_pragma(file, _tree):
    if not file.is_header:
        return
    for number, line in enumerate(file.code_lines, 1):
        if line.strip():
            if line.strip() != "#pragma once":
                yield number, "a header begins with #pragma once"
            return
    yield 1, "a header begins with #pragma once"


def check_include_form(file, tree):
    if file.path in SHORT_INCLUDES:
        return
    for number, delimiter, path in file.includes():
        folder = tree.header_folders.get(path.split("/")[-1])
        if folder is None or path.split("/")[0] not in ("..", ".", folder, path):
            continue
        if delimiter != '"' or path != f"{folder}/{path.split('/')[-1]}":
            yield number, f'written as "{folder}/{path.split("/")[-1]}"'


def upward_includes(file, tree):
    """(line, path, folder) of each include of a folder that stands above the file's own."""
    if not file.is_code or file.folder not in SUBSYSTEMS:
        return
    for number, _delimiter, path in file.includes():
        folder = tree.header_folders.get(path.split("/")[-1])
        if folder is None or path.split("/")[0] not in (folder, path):
            continue
        if folder != file.folder and folder not in ALLOWED_INCLUDES[file.folder]:
            yield number, path, folder


def check_direction(file, tree):
    for number, path, folder in upward_includes(file, tree):
        if (file.path, path) not in UPWARD_INCLUDES:
            yield number, (f"{file.folder} stands below {folder} and does not include {path};"
                           " exceptions, each with a reason, are in UPWARD_INCLUDES")


def reaches(tree, start, goal):
    seen, waiting = set(), [start]
    while waiting:
        path = waiting.pop()
        if path == goal:
            return True
        if path not in seen and path in tree.files:
            seen.add(path)
            waiting.extend(include for _, _, include in tree.files[path].includes())
    return False


def check_rings(file, tree):
    """Where an upward include is allowed, the direction alone does not keep rings out."""
    if not file.is_library_header:
        return
    for number, _delimiter, path in file.includes():
        if path.split("/")[0] in SUBSYSTEMS and reaches(tree, path, file.path):
            yield number, f"{path} includes this header in its turn"


def check_header_name(file, _tree):
    if not file.is_library_header or file.path in FREE_HEADER_NAMES:
        return
    stem = file.name[:-len(".h")]
    # An internal header may leave out the prefix of its namespace.
    named = rf"(?:Zeb)?{re.escape(stem)}\b"
    code = MACRO_CALL.sub("", file.code)
    if re.search(rf"^(?:class|struct|enum(?: class)?|union)\s+(?:\w+\s+)?{named}[^;{{]*\{{", code,
                 re.M):
        return
    if re.search(rf"^namespace\s+{named}", code, re.M):
        return
    if re.search(rf"^\w[\w\s:<>,*&]*\b{named}\s*\(", code, re.M):
        return
    yield 1, f"declares no class, namespace or function {stem}"


def check_doc_comments(file, _tree):
    if not file.is_library_header:
        return
    for number, line in enumerate(file.code_lines, 1):
        is_class = re.match(r"(?:class|struct)\b", line)
        if is_class:
            rest = "\n".join(file.code_lines[number - 1:])
            is_class = re.match(r"[^;{]*\{", rest)
        if not is_class and not re.match(r"ZEBTDX_EXPORT\b", line):
            continue
        above = number - 2
        while above >= 0 and TEMPLATE_HEAD.match(file.code_lines[above]):
            above -= 1
        if above < 0 or not file.lines[above].startswith("///"):
            yield number, "no doc comment (///) above"


def check_phrases(file, _tree):
    return plain_english.findings(file)


def check_wording(file, _tree):
    for number, line in enumerate(file.lines, 1):
        for pattern, message in FORBIDDEN_TEXT:
            match = pattern.search(line)
            if match:
                yield number, f"{message}: {match.group(0)}"


CODE_RULES = {
    "length": check_length,
    "blanks": check_blanks,
    "notes": check_notes,
    "functions": check_functions,
    "pragma": check_pragma,
    "include form": check_include_form,
    "direction": check_direction,
    "rings": check_rings,
    "header name": check_header_name,
    "doc comments": check_doc_comments,
}
TEXT_RULES = {"wording": check_wording, "phrases": check_phrases}


def stale_exceptions(tree):
    """The entries of the lists of exceptions that the tree does not need any more."""
    for path, include in UPWARD_INCLUDES:
        file = tree.files.get(path)
        if file is None or include not in [found for _, found, _ in upward_includes(file, tree)]:
            yield f"UPWARD_INCLUDES: {path} does not include {include}"
    for path in FREE_HEADER_NAMES:
        if path not in tree.files:
            yield f"FREE_HEADER_NAMES: there is no {path}"
    for path in SHORT_INCLUDES:
        if path not in tree.files:
            yield f"SHORT_INCLUDES: there is no {path}"
    yield from plain_english.stale_exceptions(tree.files)


def is_in(path, folders):
    return any(f"{path}/".startswith(f"{folder}/") for folder in folders)


def findings(tree):
    for path in sorted(tree.files):
        file = tree.files[path]
        rules = list(TEXT_RULES.values())
        if file.is_code:
            rules += CODE_RULES.values()
        for rule in rules:
            for line, message in rule(file, tree):
                yield path, line, message
    if THIS_FILE in tree.files:
        for message in stale_exceptions(tree):
            yield THIS_FILE, 1, f"stale exception in {message}"


def is_skipped(folder):
    return folder.startswith("build") or folder == "__pycache__"


def read_tree(root):
    """The text files of the known folders and of the root itself; build directories are left out.
    A file with a zero byte is no text."""
    # In a second worktree, .git is a file with a path in it.
    paths = [path for path in root.iterdir() if path.is_file() and path.name != ".git"]
    waiting = [root / folder for folder in TEXT_FOLDERS if (root / folder).is_dir()]
    while waiting:
        for path in waiting.pop().iterdir():
            if path.is_symlink():
                continue
            if path.is_file():
                paths.append(path)
            elif path.is_dir() and not is_skipped(path.name):
                waiting.append(path)
    files = []
    for path in paths:
        content = path.read_bytes()
        if b"\0" not in content:
            name = path.relative_to(root).as_posix()
            files.append(File(name, content.decode("utf-8", errors="replace")))
    return Tree(files)


def check(root, output, folders=()):
    tree = read_tree(root)
    if not any(file.is_code for file in tree.files.values()):
        print(f"{root}: no code there, so nothing is checked", file=output)
        return 2
    count = 0
    for path, line, message in findings(tree):
        if folders and not is_in(path, folders):
            continue
        print(f"{path}:{line}: {message}", file=output)
        count += 1
    return 1 if count else 0


def main(arguments):
    if arguments == ["--self-test"]:
        import check_style_self_test
        return check_style_self_test.run()
    if not arguments or any(argument.startswith("-") for argument in arguments):
        print(__doc__, file=sys.stderr)
        return 2
    folders = [argument.rstrip("/") for argument in arguments[1:]]
    return check(Path(arguments[0]), sys.stdout, folders)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
