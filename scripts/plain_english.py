"""The phrasings that check_style.py refuses, and what in a file is prose."""

import re

# Phrasings that have a plain English or a technical term instead: (phrase, what to write). Looked
# for in documents, comments, test names, scripts and the tool's messages, in any case; a blank
# matches line breaks, too.
BANNED_PHRASES = (
    (r"(?:some|any)(?:body|one)|nobody|no one|whoever", '"another thread", "the caller", "no thread"'),
    (r"stumps?", '"truncated file"'),
    (r"mend(?:s|ed|ing)?", '"fix" or "repair"'),
    (r"(?:to|can't|cannot|could not) be had", '"not available" or "cannot be loaded"'),
    (r"(?:an?|one|each|every|equal|dead|dropped|several|many|two|distinct|no|large|small|of) contents"
     r"|a content",
     '"bytes", "value", "input" or "distinct blocks"'),
    (r"(?:an?|no|lost|stray|missed|its own) wakes?(?!-)", '"wake-up"'),
    (r"meant so", '"intended" or "required"'),
    (r"for ever|forever", '"indefinitely" or "without limit"'),
    (r"(?:bare|plain) loops?", '"naive loop" or "baseline"'),
    (r"foreign", '"unexpected", or say whose it is'),
    (r"times as fast", 'the speed-up, as in "2.4 times faster" or a column "Speed-up"'),
    (r"(?:comes?|came|coming|gets?|got) past", '"passes"'),
    (r"round about|in turns", '"interleaved"'),
    (r"(?:leaves?|left|leaving) memory|taken? out of memory", '"is evicted" or "evicts"'),
    (r"do-not-cache", '"uncached"'),
    (r"by force", '"fsynced"'),
    (r"steps? outward|stands? aside", '"out-of-order acquisition" or "leaf lock"'),
    (r"loose permissions?", '"group- or world-writable"'),
    (r"h[eo]ld(?:s|ing)? off", '"pinned", "prevents" or "blocks"'),
    (r"tell(?:s|ing)?|told", '"reports", "logs", "prints", "documents" or "says"'),
    (r"beside", '"next to", "in addition to", "compared with" or "while"'),
    (r"stray", '"unexpected" or "spurious"'),
    (r"tried again", '"retried" or "retries"'),
)

# Files in which a phrase stands for a reason: (path, phrase): reason.
BANNED_EXCEPTIONS = {
}

# Files that list the phrases themselves.
PHRASE_LISTS = ("scripts/plain_english.py", "scripts/check_style_self_test.py")

# The tool's string literals are prose. Those of the library and its tests quote messages that must
# not change.
PROSE_LITERALS = ("tools",)

COMMENT_OR_TEXT = re.compile(
    r'//(?:[^\n\\]|\\.)*'
    r'|/\*.*?\*/'
    r'|R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])*'",
    re.S)
MARKDOWN_CODE = re.compile(r"^ *```.*?^ *```|`[^`\n]+`", re.S | re.M)
TEST_NAME = re.compile(r"\b(?:TEST|TEST_F|TEST_P|TYPED_TEST)\s*\(\s*\w+\s*,\s*(?P<name>\w+)")

WORD_BREAK = re.compile(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])")


def prose_of_code(text, with_literals):
    """Comments, and literals where asked for, each character at its place; blanks elsewhere."""
    kept = [sign if sign == "\n" else " " for sign in text]
    for match in COMMENT_OR_TEXT.finditer(text):
        token = match.group(0)
        if token.startswith(("//", "/*")):
            token = re.sub(r"(?m)^[ \t]*(?:///?|/?\*+/?)", lambda m: " " * len(m.group(0)), token)
        elif not with_literals:
            continue
        kept[match.start():match.end()] = token
    return "".join(kept)


def prose(file):
    """(first line, text) of what is prose in the file: its text with everything else blanked, and
    then the name of each test in words."""
    if file.is_code:
        yield 1, prose_of_code(file.text, file.folder in PROSE_LITERALS)
        for match in TEST_NAME.finditer(file.text):
            words = WORD_BREAK.sub(" ", match.group("name"))
            yield 1 + file.text.count("\n", 0, match.start()), words
    elif file.path.endswith(".md"):
        yield 1, MARKDOWN_CODE.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), file.text)
    else:
        yield 1, re.sub(r"(?m)^[ \t]*#", lambda m: " " * len(m.group(0)), file.text)


def phrase_pattern(phrase):
    return re.compile(r"(?<![\w-])(?:" + phrase.replace(" ", r"\s+") + r")(?![\w])", re.I)


BANNED_PATTERNS = tuple((phrase_pattern(phrase), instead) for phrase, instead in BANNED_PHRASES)


def findings(file):
    if file.path in PHRASE_LISTS:
        return
    for first, text in prose(file):
        for pattern, instead in BANNED_PATTERNS:
            for match in pattern.finditer(text):
                phrase = " ".join(match.group(0).split()).lower()
                if (file.path, phrase) in BANNED_EXCEPTIONS:
                    continue
                line = first + text.count("\n", 0, match.start())
                yield line, f"'{phrase}': write {instead}"


def stale_exceptions(files):
    """The exceptions that no file needs any more; `files` by path."""
    for path, phrase in BANNED_EXCEPTIONS:
        text = "\n".join(text for _, text in prose(files[path])) if path in files else ""
        if not phrase_pattern(re.escape(phrase).replace(r"\ ", " ")).search(text):
            yield f"BANNED_EXCEPTIONS: {path} does not say '{phrase}'"
