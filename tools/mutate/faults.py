"""The small faults that can be planted in a C++ source, each as a span of its text and what stands there instead."""
import re
from collections import namedtuple

Token = namedtuple("Token", "kind text begin end")


class Fault:
    """A fault in a file. It is known by the lines that it changes, not by their numbers."""

    def __init__(self, path, source, begin, end, instead):
        self.path, self.begin, self.end, self.instead = path, begin, end, instead
        self.line = source.count("\n", 0, begin) + 1
        first = source.rfind("\n", 0, begin) + 1
        last = source.find("\n", end)
        self.before = " ".join(source[first:last].split())
        self.after = " ".join((source[first:begin] + instead + source[end:last]).split())

    @property
    def key(self):
        return self.path, self.before, self.after

    def plant(self, source):
        return source[: self.begin] + self.instead + source[self.end :]

    def __str__(self):
        return f"{self.path}:{self.line}\n- {self.before}\n+ {self.after}"


TOKENS = re.compile(
    r"""(?P<blank>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.)*)
      | (?P<text>R"\(.*?\)"|"(?:[^"\\\n]|\\.)*")
      | (?P<char>'(?:[^'\\\n]|\\.)+')
      | (?P<number>\d(?:'?[\w.])*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<mark><=>|<<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|[-+*/%&|^=!<>]=|&&|\|\||.)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

# Only between blanks are they the operators of two values, and not parts of a type or signs.
OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">"], "<=": ["<"], ">": [">=", "<"], ">=": [">"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"],
    "&": ["|"], "|": ["&"], "<<": [">>"], ">>": ["<<"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}  # fmt: skip
MARKS = {"++": ["--"], "--": ["++"], "!": [""]}
NAMES = {
    "true": ["false"], "false": ["true"], "break": ["continue"], "continue": ["break"],
    "log_error": ["log_warning"], "log_warning": ["log_error"], "log_info": ["log_error"],
    "log_error_errno": ["log_error", "log_warning_errno"], "log_warning_errno": ["log_warning", "log_error_errno"],
    "LOG_ERR": ["LOG_WARNING"], "LOG_WARNING": ["LOG_ERR"], "LOG_INFO": ["LOG_ERR"],
    "min": ["max"], "max": ["min"],
}  # fmt: skip


def tokens_of(source):
    """All but blanks, comments and preprocessor lines."""
    found = (Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKENS.finditer(source))
    return [token for token in found if token.kind != "blank"]


def instead_of_number(text):
    digits = re.match(r"0[xX][\da-fA-F]+|\d+", text.replace("'", "")).group()
    value = int(digits, 16 if digits[:2] in ("0x", "0X") else 8 if digits[0] == "0" else 10)
    suffix = text.replace("'", "")[len(digits) :]
    return [f"{other}{suffix}" for other in {0: [1], 1: [0, 2]}.get(value, [value + 1, value - 1])]


def instead_of_token(token, source):
    """What can stand in its place, by itself."""
    if token.kind == "number":
        return instead_of_number(token.text) if "." not in token.text else []
    if token.kind == "char":
        return ["'#'" if token.text != "'#'" else "'@'"]
    if token.kind == "text":
        return [token.text[:-1] + 'X"'] if not token.text.startswith("R") else []
    if token.kind == "name":
        return NAMES.get(token.text, [])
    is_between_blanks = source[token.begin - 1].isspace() and source[token.end].isspace()
    return MARKS.get(token.text) or (OPERATORS.get(token.text, []) if is_between_blanks else [])


def closing(tokens, opening):
    """The index of the parenthesis that closes the one at opening."""
    depth = 0
    for i in range(opening, len(tokens)):
        depth += {"(": 1, ")": -1}.get(tokens[i].text, 0)
        if depth == 0:
            return i
    return opening


def negated_conditions(tokens, source):
    for i, token in enumerate(tokens[:-1]):
        if token.text == "if" and tokens[i + 1].text == "(":
            begin, end = tokens[i + 1].end, tokens[closing(tokens, i + 1)].begin
            declared = source.rfind(";", begin, end) + 1  # if (declaration; condition)
            begin = begin if declared == 0 else declared + 1
            yield begin, end, f"!({source[begin:end]})"


STARTERS = {";", "{", "}", ")", "else"}
NO_CALLS = {"return", "if", "for", "while", "switch", "case", "goto", "throw", "using", "static_assert", "break", "continue",
            "__attribute__"}


def dropped_statements(tokens):
    """Statements that are a call or an assignment to something that exists already."""
    for i, token in enumerate(tokens[1:], 1):
        if token.kind != "name" or token.text in NO_CALLS or tokens[i - 1].text not in STARTERS:
            continue
        at = i + 1
        while tokens[at].text in ("::", ".", "->") and tokens[at + 1].kind == "name":
            at += 2
        if tokens[at].text not in ("(", "=", "+=", "-=", "|=", "&=", "++", "--"):
            continue
        while at < len(tokens) - 1 and tokens[at].text not in (";", "{", "}"):
            at = closing(tokens, at) + 1 if tokens[at].text == "(" else at + 1
        if tokens[at].text == ";" and tokens[at - 1].text not in ("delete", "default"):
            yield token.begin, tokens[at].end, ";"


def swapped_arguments(tokens):
    """f(a, b): the wrong way round."""
    for i in range(len(tokens) - 5):
        name, opens, a, comma, b, closes = tokens[i : i + 6]
        is_call = name.kind == "name" and (opens.text, comma.text, closes.text) == ("(", ",", ")")
        if is_call and a.kind in ("name", "number") and b.kind in ("name", "number") and a.text != b.text:
            yield a.begin, b.end, f"{b.text}, {a.text}"


def faults_in(path, source):
    """All of them, in the order of the text."""
    tokens = tokens_of(source)
    spans = [(t.begin, t.end, instead) for t in tokens for instead in instead_of_token(t, source)]
    spans += negated_conditions(tokens, source)
    spans += dropped_statements(tokens)
    spans += swapped_arguments(tokens)
    return [Fault(path, source, *span) for span in sorted(set(spans))]
