"""Which functions a C++ file declares, defines and names: a light scan of this project's style (free functions,
few namespaces, no macros that open or close a brace), not a parser."""

import re

_NOISE = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)+\'', re.S)
_DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n\\]|\\\n|\\.)*", re.M)
_TRANSPARENT = re.compile(r'namespace\s+[\w:]+$|extern\s*""$')
_ATTRIBUTE = re.compile(r"\[\[.*?\]\]|__attribute__\s*\(\(.*?\)\)", re.S)
# the lock annotations, and constexpr functions of tables
_ANNOTATION = re.compile(r"\b[A-Z][A-Z_]+\s*\([^()]*\)")
_NAME = re.compile(r"((?:\w+::)*[~\w]+)\s*$")
_WORD = re.compile(r"(?<![\w.:>])(?:::)?([A-Za-z_]\w*)|(?:\.|->)\s*([A-Za-z_]\w*)")
_NO_FUNCTION = re.compile(r"^(?:typedef|using|static_assert|struct|class|enum|union|template|friend)\b")


def strip(text):
    """The code without comments, directives and what stands in literals."""
    def blank(found):
        kept = '""' if found.group().endswith('"') else " "
        return kept + "\n" * found.group().count("\n")
    return _DIRECTIVE.sub("", _NOISE.sub(blank, text))


def _statements(code):
    """What stands outside all braces, as (text, whether a body follows). Named namespaces and extern "C" do not count
    as braces; what is in one without a name is the file's own."""
    at, start, depth, inside = 0, 0, 0, 0  # inside: transparent braces that are open
    for at, letter in enumerate(code):
        if letter == "{":
            if depth == 0 and _TRANSPARENT.search(code[start:at].strip()):
                inside, start = inside + 1, at + 1
                continue
            if depth == 0:
                yield code[start:at].strip(), True
            depth += 1
        elif letter == "}":
            if depth == 0 and inside:
                inside, start = inside - 1, at + 1
                continue
            depth -= 1
            start = at + 1
        elif letter == ";" and depth == 0:
            yield code[start:at].strip(), False
            start = at + 1


def _function(text):
    """The name of the function whose declaration or head this is; None when it is something else."""
    text = _ANNOTATION.sub(" ", _ATTRIBUTE.sub(" ", text)).strip()
    if _NO_FUNCTION.match(text) or re.match(r"(?:static|inline)\b", text) or "operator" in text:
        return None
    head, parenthesis, _ = text.partition("(")
    if not parenthesis or "=" in head:
        return None
    name = _NAME.search(head)
    # a type must stand before a name, but for constructors, which have ::
    return name.group(1) if name and (name.start() > 0 or "::" in name.group(1)) else None


_DATA = re.compile(r"^extern\s+(?:[^(=]*\(\s*\*\s*(\w+)\)\(.*|[^(=]*?(\w+)(?:\s*\[[^]]*\])*)$", re.S)


def declared(code):
    """Names of the functions and of the data that a header promises, of stripped code."""
    functions, data = set(), set()
    for text, has_body in _statements(code):
        if has_body:
            continue
        name = _function(re.sub(r"^extern\s+(?:\"\"\s*)?", "", text))
        if name:
            functions.add(name)
        elif found := _DATA.match(_ANNOTATION.sub("", re.sub(r"decltype\([^)]*\)", "decltype", text)).strip()):
            data.add(found.group(1) or found.group(2))
    return functions, data


def defined(code):
    """Names of the functions that a source defines for others."""
    names = {_function(text) for text, has_body in _statements(code) if has_body}
    return {name for name in names if name}


def mentioned(code):
    """(free names, names behind a dot or an arrow) anywhere in the code."""
    free, member = set(), set()
    for one, other in _WORD.findall(code):
        (free if one else member).add(one or other)
    return free, member
