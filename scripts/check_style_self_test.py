"""The self-test of check_style.py: each rule against snippets that must pass and snippets that must
not, and the program as a whole against small trees."""

import tempfile
from pathlib import Path

import check_style


def body(lines):
    return "{\n" + "    f();\n" * (lines - 2) + "}\n"


def cases():
    """(rule, path, text, lines of the findings)."""
    header = "#pragma once\n"
    code = "data/ZebX.cpp"
    yield "length", code, "x" * 100 + "\n", []
    yield "length", code, "\n" + "x" * 101 + "\n", [2]
    yield "length", code, "\u00e4" * 100 + "\n", []
    yield "length", code, "x\n" * 600, []
    yield "length", code, "x\n" * 601, [601]

    yield "blanks", code, "int a;\n\nint b;\n", []
    yield "blanks", code, "int a;\n\tint b;\n", [2]
    yield "blanks", code, "int a; \nint b;\r\n", [1, 2]
    yield "blanks", code, "int a;", [1]
    yield "blanks", code, "int a;\n\n", [2]

    yield "notes", code, "// Makes a place: XXX" "XXX.\nint todoCount;\n", []
    for note in ("TO" "DO", "FIX" "ME", "XX" "X", "HA" "CK"):
        yield "notes", code, f"int a;\n// {note}: later\n", [2]

    yield from function_cases(code)

    yield "pragma", "data/ZebX.h", "// Why.\n\n#pragma once\nclass ZebX;\n", []
    yield "pragma", code, "int a;\n", []
    yield "pragma", "data/ZebX.h", "#include <QString>\n#pragma once\n", [1]
    yield "pragma", "tests/support/X.h", "// #pragma once\n", [1]

    form = "include form"
    yield form, code, '#include "data/ZebB.h"\n#include <QString>\n#include "ZebX.moc"\n', []
    yield form, code, '// #include "ZebB.h"\n#include "local.h"\n', []
    yield form, "tests/support/ATest.cpp", '#include "support/MessageCapture.h"\n', []
    yield form, code, '#include "ZebB.h"\n', [1]
    yield form, code, "\n#include <data/ZebB.h>\n#include <ZebB.h>\n", [2, 3]
    yield form, "tests/data/BTest.cpp", '#include "../data/ZebB.h"\n', [1]
    yield form, "tools/main.cpp", '#include "ZebTdxVersion.h"\n', [1]
    yield form, "tests/package/main.cpp", '#include "ZebB.h"\n', []

    yield "direction", "data/ZebX.h", '#include "hash/ZebH.h"\n#include "data/ZebB.h"\n', []
    yield "direction", "manager/ZebX.h", '#include "data/ZebB.h"\n', []
    yield "direction", code, '#include "manager/ZebDataBlockManager.h"\n', [1]
    yield "direction", "data/ZebDataBlock.cpp", '#include "manager/ZebDataBlockManager.h"\n', []
    yield "direction", "tools/main.cpp", '#include "manager/ZebDataBlockManager.h"\n', []
    yield "direction", "hash/ZebX.h", '\n#include "data/ZebB.h"\n', [2]
    yield "direction", "support/ZebX.h", '#include "hash/ZebH.h"\n', [1]
    yield "direction", "support/ZebX.h", "#include <ZebH.h>\n", [1]
    yield "direction", "io/ZebX.h", '#include "manager/ZebDataBlockManager.h"\n', [1]
    upward = '#include "manager/ZebDataBlockManager.h"\n'
    yield "direction", "data/ZebDataReference.h", upward, []
    yield "direction", "data/ZebX.h", upward, [1]

    yield "rings", "data/ZebX.h", '#include "data/ZebB.h"\n', []
    yield "rings", "data/ZebRing.h", '#include "data/ZebB.h"\n', [1]

    name = "header name"
    yield name, "data/ZebX.h", "class ZEBTDX_EXPORT ZebX : public Y\n{\n};\n", []
    yield name, "data/ZebX.h", "template <typename T>\nclass ZebX\n{\n};\n", []
    yield name, "data/ZebX.h", 'class ZEBTDX_CAPABILITY("mutex") ZebX\n{\n};\n', []
    yield name, "data/ZebX.h", "namespace ZebX {\n}\n", []
    yield name, "data/X.h", "namespace ZebX {\n}\n", []
    yield name, "data/ZebX.h", "ZEBTDX_EXPORT QString ZebX(int a);\n", []
    yield name, "manager/ZebSystemMemory.h", "int ZebOther();\n", []
    yield name, "data/ZebX.h", "class ZebX;\nclass ZebXY\n{\n};\n", [1]
    yield name, "data/ZebX.h", "// class ZebX {\nnamespace ZebY {\n}\n", [1]

    docs = "doc comments"
    yield docs, "data/ZebX.h", header + "class Y;\n/// Why.\nclass ZebX\n{\n};\n", []
    yield docs, "data/ZebX.h", "/// Why.\ntemplate <typename T>\nclass ZebX\n{\n};\n", []
    yield docs, "data/ZebX.h", "/// Why.\nZEBTDX_EXPORT int ZebX();\n", []
    yield docs, "data/ZebX.h", header + "// Why.\nclass ZebX\n{\n};\n", [3]
    yield docs, "data/ZebX.h", header + "\nstruct ZebX final\n    : public Y\n{\n};\n", [3]
    yield docs, "data/ZebX.h", header + "\nZEBTDX_EXPORT int ZebX();\n", [3]

    yield "wording", "README.md", "See /usr/share, $HOME/x, docs/home/x and ${A}/root/x.\n", []
    for path in ("/home" "/ann/x", "/root" "/x", "/tmp" "/bann/lib", "/work" "/x", "/builds" "/x"):
        yield "wording", "docs/A.md", f"\nbuilt in {path} once\n", [2]
        yield "wording", "cmake/A.cmake", f'set(A "{path}")\n', [1]


    yield from phrase_cases()


def phrase_cases():
    rule = "phrases"
    yield rule, "docs/A.md", "The host tells\nit apart. A\nstump.\n", [1, 3]
    yield rule, "docs/A.md", "Words that quote `somebody` and\n```\na stump\n```\n", []
    yield rule, "docs/A.md", "It is tried\nagain, but retried once.\n", [1]
    yield rule, "docs/A.md", "Contents are uninitialized. A stumpy pencil.\n", []
    yield rule, "docs/A.md", "Two equal\ncontents.\n", [1]
    yield rule, "scripts/a.sh", "# Nobody\necho 'for ever'\n", [1, 2]
    yield rule, "data/ZebX.cpp", "int a; // Cannot be\n       // had.\n", [1]
    yield rule, "data/ZebX.cpp", 'f("a stump"); int stump = 1;\n', []
    yield rule, "tools/main.cpp", 'f("a stump"); int stump = 1;\n', [1]
    yield rule, "tests/data/XTest.cpp", "\nTEST(A, TellsOfAStump)\n{\n}\n", [2, 2]
    yield rule, "tests/data/XTest.cpp", "TEST(A, RepairsATruncatedFile)\n{\n}\n", []
    yield rule, "scripts/plain_english.py", "somebody\n", []


def function_cases(code):
    rule = "functions"
    yield rule, code, "int f()\n" + body(69), []
    yield rule, code, "int f()\n" + body(70), [1]
    yield rule, code, "int f(int a,\n      int b)\n" + body(69), [1]
    yield rule, code, "void X::f() const\n" + body(71), [1]
    yield rule, code, "TEST(A, B)\n" + body(71), [1]
    yield rule, code, "bool X::operator==(const X& o)\n" + body(71), [1]
    yield rule, code, "X::X() : m_A(1), m_B{2}\n" + body(71), [1]
    yield rule, code, "X::X() : m_A{1}\n{\n}\n" + "int a = 1;\n" * 80, []
    yield rule, code, "const QStringList a{\n" + '    "b",\n' * 80 + "};\n", []
    yield rule, code, "const int a[] = {\n" + "    1,\n" * 80 + "};\n", []
    yield rule, code, "const auto a = [](int b) " + body(72), [1]
    yield rule, code, "const auto a = call([&] " + body(72)[:-1] + ");\n", [1]
    yield rule, code, "namespace {\n\nvoid f()\n" + body(71) + "\n} // namespace\n", [3]
    yield rule, code, "namespace {\n" + "void f()\n{\n}\n" * 40 + "}\n", []
    yield rule, code, 'extern "C" {\n' + "void f()\n{\n}\n" * 40 + "}\n", []
    yield rule, code, "enum A : int\n{\n" + "    B,\n" * 80 + "};\n", []
    members = "    int a();\n" * 80
    yield rule, code, "class E X : public Y<int>\n{\n" + members + "};\n", []
    yield rule, code, 'class CAPABILITY("m") X\n{\n' + members + "};\n", []
    yield rule, code, "struct X\n{\n    Q_PROPERTY(int a)\npublic:\n    enum B\n    {\n" + \
        "        C,\n" * 80 + "    };\n};\n", []
    method = "    int g() const noexcept\n    {\n" + "        f();\n" * 70 + "    }\n"
    yield rule, code, "struct X\n{\npublic:\n" + method + "};\n", [4]
    yield rule, code, "struct X\n{\n    struct Y\n    {\n" + method + "    };\n};\n", [5]
    yield rule, code, "template <typename T>\nint f()\n" + body(71), [1]
    yield rule, code, "int f()\n{\n    g('{', \"{\", R\"(})\"); // {\n    /* } */\n}\n" + \
        "int a;\n" * 80, []
    yield rule, code, "#ifdef A\nint f()\n{\n}\n#else\nint g()\n" + body(71) + "#endif\n", [6]
    yield rule, code, "#ifdef A\nint f()\n{\n#else\nint g()\n{\n#endif\n}\n" + "int a;\n" * 80, []
    yield rule, code, "strange thing\n{\n}\n", [2]
    yield rule, code, "#define A(x) \\\n    if (x) {\nint f()\n{\n}\n" + "int a;\n" * 80, []
    yield rule, code, "int f()\n{\n    {\n}\n", [1]
    yield rule, code, "int f()\n{\n}\n}\n", [4]
    waiver = "// style: long function"
    yield rule, code, f"{waiver}, one table of rows\nint f()\n" + body(71), []
    yield rule, code, f"{waiver}, one table of rows\n\nint f()\n" + body(71), [3, 1]
    yield rule, code, f"{waiver}\nint f()\n" + body(71), [1]
    yield rule, code, f"{waiver}, one table of rows\nint f()\n" + body(60), [1]


# Around every snippet: headers for its includes to lead to.
SURROUNDINGS = {
    "support/ZebS.h": "",
    "hash/ZebH.h": "",
    "data/ZebB.h": '#include "data/ZebRing.h"\n',
    "data/ZebRing.h": "",
    "manager/ZebDataBlockManager.h": "",
}


def self_test_of_rules(fail):
    rules = {**check_style.CODE_RULES, **check_style.TEXT_RULES}
    passing, refused = set(), set()
    for rule, path, text, expected in cases():
        files = [check_style.File(*pair) for pair in {**SURROUNDINGS, path: text}.items()]
        tree = check_style.Tree(files)
        found = sorted(line for line, _ in rules[rule](tree.files[path], tree))
        if found != sorted(expected):
            fail(f"{rule}: findings in lines {found}, expected {expected}, in {path}:"
                 f" {text[:80]!r}")
        (refused if expected else passing).add(rule)
    for rule in rules:
        if rule not in passing or rule not in refused:
            fail(f"{rule}: needs a snippet that passes and one that does not")


def self_test_of_program(fail):
    """The way from a tree on disk to the exit status."""
    good = '#pragma once\n\n/// Why.\nclass ZebX\n{\n};\n'
    trees = (
        ({"data/ZebX.h": good, "README.md": "Text.\n"}, 0, ""),
        ({"data/ZebX.h": good, "tests/build/a.h": "\t", "tools/build-x/b.cpp": "\t"}, 0, ""),
        ({"data/ZebX.h": good + "\n"}, 1, "data/ZebX.h:7: empty line at the end of the file\n"),
        ({"data/ZebX.h": good, "README.md": "/root" "/x\n"}, 1, "README.md:1: "),
        ({"README.md": "Text.\n"}, 2, ""),
    )
    for files, status, start in trees:
        with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryFile("w+") as output:
            for path, text in files.items():
                (Path(folder) / path).parent.mkdir(parents=True, exist_ok=True)
                (Path(folder) / path).write_text(text, encoding="utf-8")
            result = check_style.check(Path(folder), output)
            output.seek(0)
            printed = output.read()
        if result != status or not printed.startswith(start) or (status == 0 and printed):
            fail(f"exit status {result} and {printed!r}, expected {status} for {list(files)}")


def self_test_of_stale_exceptions(fail):
    """An entry counts as stale when its file is gone, and when the file does not need it."""
    header = "manager/ZebDataBlockManager.h"
    needed = ("data/ZebDataBlock.cpp", f'#include "{header}"\n')
    for text, is_stale in ((needed[1], False), ("", True)):
        files = {**SURROUNDINGS, needed[0]: text}
        tree = check_style.Tree([check_style.File(*pair) for pair in files.items()])
        found = list(check_style.stale_exceptions(tree))
        entry = f"UPWARD_INCLUDES: {needed[0]} does not include {header}"
        if (entry in found) != is_stale:
            fail(f"stale exceptions: {entry!r} in {found}, expected {is_stale}")
        if not any("ZebSystemMemory.h" in message for message in found):
            fail("stale exceptions: a file that is gone is not reported")


def run():
    failures = []
    self_test_of_stale_exceptions(failures.append)
    self_test_of_rules(failures.append)
    self_test_of_program(failures.append)
    for failure in failures:
        print(failure)
    print(f"self-test: {len(failures)} failures in {len(list(cases()))} snippets")
    return 1 if failures else 0
