"""The faults that can be planted in a source, by rule.

A source is split into tokens, not parsed: a fault that makes no sense does not compile, and is
replaced by another. What the layout tells (clang-format puts blanks around binary operators and
none inside template brackets) is relied on.
"""

import dataclasses
import re

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
  | (?P<raw>\bR"(?P<delimiter>[^(\s]*)\(.*?\)(?P=delimiter)")
  | (?P<string>(?:\b(?:u8|u|U|L))?"(?:[^"\\\n]|\\.)*")
  | (?P<character>'(?:[^'\\\n]|\\.)+')
  | (?P<number>\.?\d(?:'?[\w.]|(?<=[eE])[+-])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><=>|<<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

OPENING = {"(": ")", "[": "]", "{": "}"}

TURNED = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"),
          "==": ("!=",), "!=": ("==",)}
EXCHANGED = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "+=": "-=", "-=": "+=",
             "|": "&", "&": "|", "|=": "&=", "&=": "|=", "++": "--", "--": "++",
             "true": "false", "false": "true"}

# What begins no statement that could be left out.
NO_STATEMENT = {"using", "typedef", "static_assert", "assert", "static", "const", "constexpr", "auto", "struct",
                "class", "enum", "union", "friend", "namespace", "template", "extern", "thread_local", "public",
                "private", "protected", "return", "throw", "try", "virtual", "explicit", "unsigned", "signed"}


@dataclasses.dataclass(frozen=True)
class Fault:
    file: str
    line: int           # of the first changed byte
    lines: range        # of the statement around it
    rule: str
    begin: int          # the bytes [begin, end) give way to `text`
    end: int
    text: str

    def applied(self, source):
        return source[:self.begin] + self.text + source[self.end:]


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    begin: int
    end: int
    line: int


def tokens_of(source):
    found = []
    line, at = 1, 0
    for match in TOKEN.finditer(source):
        line += source.count("\n", at, match.start())
        at = match.start()
        kind = match.lastgroup if match.lastgroup != "delimiter" else "raw"
        if kind in ("comment", "directive"):
            continue
        found.append(Token(kind, match.group(), match.start(), match.end(), line))
    return found


def partners(tokens):
    """Index of the closing bracket for each opening one, and the other way round."""
    found, open_ones = {}, []
    for index, token in enumerate(tokens):
        if token.kind != "sign":
            continue
        if token.text in OPENING:
            open_ones.append(index)
        elif token.text in OPENING.values() and open_ones:
            other = open_ones.pop()
            found[other], found[index] = index, other
    return found


class Source:
    """One file and what stands where in it."""

    def __init__(self, name, text):
        self.name, self.text = name, text
        self.tokens = tokens_of(text)
        self.partner = partners(self.tokens)
        self.skipped = self._skipped()
        self.bodies = {index for index, token in enumerate(self.tokens)
                       if token.text == "{" and token.kind == "sign" and self._is_body(index)}

    def faults(self):
        found = []
        for index in range(len(self.tokens)):
            if index in self.skipped:
                continue
            found += self._in_token(index)
            found += self._negated(index)
            found += self._left_out(index)
        return found

    def _skipped(self):
        """Assertions, which are no code of their own, and lists of template parameters."""
        skipped = set()
        for index, token in enumerate(self.tokens[:-1]):
            following = self.tokens[index + 1].text
            if token.text in ("assert", "static_assert", "alignas") and following == "(":
                skipped.update(range(index, self.partner.get(index + 1, index) + 1))
            elif token.text == "template" and following == "<":
                depth = 0
                for at in range(index + 1, len(self.tokens)):
                    text = self.tokens[at].text
                    depth += text.count("<") - text.count(">") if text in ("<", ">", ">>") else 0
                    skipped.add(at)
                    if depth <= 0:
                        break
        return skipped

    def _is_body(self, index):
        """Whether the brace opens statements: a function's, a lambda's, a block's."""
        before = self.tokens[index - 1].text if index else ";"
        if before in (")", "else", "do", "try", "const", "noexcept", "override", "final", "mutable", ";", "{", "}",
                      ":", "]"):
            if before != "]" and before not in (";", "{", "}", ":"):
                return not self._names_a_scope(index)
            return before == "]" or index in self.partner
        return self._follows_an_arrow(index)

    def _names_a_scope(self, index):
        for token in reversed(self.tokens[:index]):
            if token.text in (";", "{", "}", "(", ")"):
                return False
            if token.text in ("class", "struct", "union", "enum", "namespace"):
                return True
        return False

    def _follows_an_arrow(self, index):
        for token in reversed(self.tokens[max(0, index - 8):index]):
            if token.text == "->":
                return True
            if token.kind != "word" and token.text not in ("::", "*", "&", "<", ">"):
                return False
        return False

    def _around(self, index):
        """Lines of the statement around a token."""
        first = last = index
        while first > 0 and self.tokens[first - 1].text not in (";", "{", "}"):
            first -= 1
        while last + 1 < len(self.tokens) and self.tokens[last].text not in (";", "{", "}"):
            last += 1
        return range(self.tokens[first].line, self.tokens[last].line + 1)

    def _fault(self, index, rule, begin, end, text):
        return Fault(self.name, self.tokens[index].line, self._around(index), rule, begin, end, text)

    def _is_spaced(self, token):
        text = self.text
        return text[token.begin - 1:token.begin] in (" ", "\n") and text[token.end:token.end + 1] in (" ", "\n")

    def _in_token(self, index):
        token = self.tokens[index]
        replace = []
        if token.kind == "number":
            replace = [("a constant off by one", text) for text in beside(token.text)]
        elif token.text in ("true", "false"):
            replace = [("true for false", EXCHANGED[token.text])]
        elif token.kind != "sign":
            pass
        elif token.text in ("++", "--"):
            replace = [("an operator exchanged", EXCHANGED[token.text])]
        elif token.text == "!" and self.tokens[index + 1].text != "=":
            replace = [("a condition negated", "")]
        elif self._is_spaced(token):
            replace = [("a comparison turned", text) for text in TURNED.get(token.text, ())]
            if token.text in EXCHANGED:
                replace.append(("an operator exchanged", EXCHANGED[token.text]))
        return [self._fault(index, rule, token.begin, token.end, text) for rule, text in replace]

    def _negated(self, index):
        """`if` and `while`; not where the condition declares something."""
        tokens = self.tokens
        if tokens[index].text not in ("if", "while") or tokens[index + 1].text != "(":
            return []
        first, last = index + 2, self.partner.get(index + 1, 0) - 1
        for at in range(first, last):
            if tokens[at].text == ";":
                first = at + 1
        if last < first or self._declares(first, last) or self._turns_by_itself(first, last):
            return []
        begin, end = tokens[first].begin, tokens[last].end
        return [self._fault(first, "a condition negated", begin, end, f"!({self.text[begin:end]})")]

    def _turns_by_itself(self, first, last):
        """A condition of one comparison or one `!`, for which there is a rule."""
        signs = [token for token in self.tokens[first:last + 1] if token.kind == "sign"]
        if any(token.text in ("&&", "||") for token in signs):
            return False
        return self.tokens[first].text == "!" or \
            any(token.text in TURNED and self._is_spaced(token) for token in signs)

    def _declares(self, first, last):
        tokens = self.tokens
        if tokens[first].text in ("auto", "const"):
            return True
        for at in range(first, last):
            if tokens[at].kind == "word" and tokens[at].text not in ("delete", "new", "return", "goto"):
                following = self._behind_template(at + 1)
                while following < last and tokens[following].text in ("*", "&") and \
                        not self._is_spaced(tokens[following]):
                    following += 1
                if tokens[following].kind == "word" and following <= last:
                    return True
            if tokens[at].text in ("=", "(", ".", "->"):
                break
        return False

    def _behind_template(self, at):
        """What follows the arguments of a template that begin at `at`; `at` when none do."""
        if self.tokens[at].text != "<" or self._is_spaced(self.tokens[at]):
            return at
        depth = 0
        for end in range(at, len(self.tokens)):
            text = self.tokens[end].text
            depth += {"<": 1, ">": -1, ">>": -2}.get(text, 0)
            if depth <= 0:
                return end + 1
            if text == ";":
                break
        return at

    def _left_out(self, index):
        """The statement that a semicolon ends; a return's value becomes an empty one."""
        tokens = self.tokens
        if tokens[index].text != ";":
            return []
        first = self._begin_of_statement(index)
        if first is None or first >= index:
            return []
        begin, end = tokens[first].begin, tokens[index - 1].end
        head = tokens[first].text
        if head == "return":
            if index - first == 1:
                return [self._fault(first, "a statement left out", begin, end, "")]
            value = self.text[tokens[first + 1].begin:end]
            if value in ("{}", "nullptr", "0", "false", "true", "*this", '""'):
                return []
            return [self._fault(first, "another value returned", tokens[first + 1].begin, end,
                                "{}" + "\n" * value.count("\n"))]
        if head in NO_STATEMENT or self._declares(first, index - 1):
            return []
        # Line numbers stay as they are.
        return [self._fault(first, "a statement left out", begin, end, "\n" * self.text.count("\n", begin, end))]

    def _begin_of_statement(self, index):
        """First token of the statement that ends at `index`; None outside of bodies."""
        tokens = self.tokens
        at = index - 1
        while at >= 0:
            text = tokens[at].text
            if text == "}" and tokens[at].kind == "sign":
                opening = self.partner.get(at)
                if opening is None or opening in self.bodies and not self._is_argument(opening):
                    break
                at = opening
            elif text in (")", "]") and at in self.partner:
                at = self.partner[at]
            elif text in (";", "{", "(", "["):
                break
            at -= 1
        if at < 0 or not self._in_body(at):
            return None
        return self._behind_headers(at + 1, index)

    def _is_argument(self, opening):
        """A lambda's body, which is inside of a statement and not before one."""
        before = opening - 1
        if self.tokens[before].text == "mutable":
            before -= 1
        if self.tokens[before].text == ")" and before in self.partner:
            before = self.partner[before] - 1
        return self.tokens[before].text == "]"

    def _in_body(self, at):
        """Whether a statement can begin behind token `at`."""
        while at >= 0:
            text = self.tokens[at].text
            if text in ("}", ")", "]") and at in self.partner:
                at = self.partner[at]
            elif text in ("{", "(", "["):
                return at in self.bodies
            at -= 1
        return False

    def _behind_headers(self, first, index):
        """Leaves out what introduces a statement: `if (...)`, `else`, `case 1:`."""
        tokens = self.tokens
        while first < index:
            text = tokens[first].text
            if text in ("if", "for", "while", "switch") and tokens[first + 1].text in ("(", "constexpr"):
                opening = first + (2 if tokens[first + 1].text == "constexpr" else 1)
                first = self.partner.get(opening, index) + 1
            elif text in ("else", "do"):
                first += 1
            elif text in ("case", "default", "public", "private", "protected"):
                while first < index and tokens[first].text != ":":
                    first += 1
                first += 1
            elif text == "[" and tokens[first + 1].text == "[":
                first = self.partner.get(first, index) + 1
            else:
                break
        return first


def beside(number):
    """The constants next to a number, written as it is."""
    match = re.fullmatch(r"(0[xX][\da-fA-F']+|0[bB][01']+|[\d']+)([uUlLzZ]*)", number)
    if match:
        digits, ending = match.group(1).replace("'", ""), match.group(2)
        if re.fullmatch(r"0[0-7]+", digits):
            value, form = int(digits, 8), "0{:o}"
        elif digits[:2] in ("0x", "0X"):
            value, form = int(digits, 16), "0x{:X}"
        else:
            value, form = int(digits, 0), "{}"
        return [form.format(near) + ending for near in ((value + 1, value - 1) if value else (1,))]
    match = re.fullmatch(r"(\d+)(\.\d*)", number)
    return [str(int(match.group(1)) + 1) + match.group(2)] if match else []


def faults_of(name, text):
    """All that can be planted in one file, each once, in the order of the text."""
    found = {(fault.begin, fault.end, fault.text): fault for fault in Source(name, text).faults()}
    return sorted(found.values(), key=lambda fault: (fault.begin, fault.end, fault.text))
