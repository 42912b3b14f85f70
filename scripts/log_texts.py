#!/usr/bin/env python3
"""The texts that the library writes anywhere: installer log, standard output, debugger output. They are read
from the sources, so that the reference can be held to them. usage: log_texts.py ROOT (prints them)

A text is found where it leaves: at a call of one of SINKS, or of a function that hands a parameter on to
one. Constants, both branches of a condition, joined and formatted texts are followed; what varies stands as
"%s". A call that cannot be followed is an error, not a text less."""

import pathlib
import re
import sys

FOLDERS = ("runtime", "services", "msiregistry", "tasks", "components", "actions")

# Function: the position of the text among its arguments.
SINKS = {"WriteInstallerLog": 1, "SendInstallerMessage": 3, "WriteStandardOutput": 0,
         "OutputDebugStringW": 0, "fputws": 0}
# Formatters, with the position of their format.
FORMATTERS = {"FormatBounded": 1}
PRINTERS = {"wsprintfW": 1}  # these leave their text in their first argument
# Platform calls that put a text out: only the sinks themselves may stand on them.
PLATFORM_OUTPUT = {"MsiProcessMessage", "MsiRecordSetStringW", "MsiRecordSetStringA", "OutputDebugStringA", "fputs",
                   "fwrite", "puts", "_putws", "printf", "wprintf", "fprintf", "fwprintf", "WriteConsoleW"}

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\\n|\\.)*)
  | (?P<raw>(?:L|u8|u|U)?R"(?P<mark>[^\s()\\]*)\((?P<rawtext>.*?)\)(?P=mark)")
  | (?P<string>(?:L|u8|u|U)?"(?P<text>(?:[^"\\\n]|\\.)*)"(?:sv|s)?)
  | (?P<char>(?:L|u8|u|U)?'(?:[^'\\\n]|\\.)*')
  | (?P<name>[A-Za-z_]\w*)
  | (?P<number>\d[\w.']*)
  | (?P<punctuation>::|->|\S)""", re.VERBOSE | re.DOTALL | re.MULTILINE)

ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "0": "\0", "\\": "\\", '"': '"', "'": "'"}
OPENING = {"(": ")", "[": "]", "{": "}"}
NOT_A_FUNCTION = {"if", "while", "for", "switch", "catch", "return", "sizeof", "decltype", "alignof",
                  "static_assert", "throw", "new", "delete", "noexcept"}
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:ll|l|h|I64)?[a-zA-Z]")


class Text(str):
    """A string literal among the tokens."""


class Unreadable(Exception):
    pass


def tokens_of(source):
    tokens = []
    for match in TOKEN.finditer(source):
        if match["raw"]:
            tokens.append(Text(match["rawtext"]))
        elif match["string"]:
            tokens.append(Text(re.sub(r"\\(.)", lambda escape: ESCAPES.get(escape[1], escape[0]), match["text"])))
        elif not match["comment"] and not match["directive"]:
            tokens.append(match[0])
    return tokens


def is_mark(token, mark):
    return not isinstance(token, Text) and token == mark


def end_of(tokens, start):
    """The position of the bracket that closes the one at start."""
    depth = 0
    for index in range(start, len(tokens)):
        token = tokens[index]
        if isinstance(token, Text):
            continue
        if token in OPENING:
            depth += 1
        elif token in OPENING.values():
            depth -= 1
            if depth == 0:
                return index
    raise Unreadable("a bracket is not closed")


def split(tokens, mark):
    """The pieces between the marks that stand outside all brackets."""
    pieces, depth = [[]], 0
    for token in tokens:
        if not isinstance(token, Text):
            depth += (token in OPENING) - (token in OPENING.values())
            if token == mark and depth == 0:
                pieces.append([])
                continue
        pieces[-1].append(token)
    return pieces


class Function:
    def __init__(self, name, parameters, body):
        self.name, self.parameters, self.body = name, parameters, body


def parameter_name(tokens):
    names = [token for token in split(tokens, "=")[0] if re.fullmatch(r"[A-Za-z_]\w*", token)]
    return names[-1] if len(names) > 1 else ""


class Source:
    def __init__(self, path):
        self.path = path
        self.tokens = tokens_of(path.read_text(encoding="utf-8"))
        self.functions = list(self._functions())
        self.constants = dict(self._constants())

    def _functions(self):
        for index, token in enumerate(self.tokens[:-1]):
            if isinstance(token, Text) or not re.fullmatch(r"[A-Za-z_]\w*", token) or token in NOT_A_FUNCTION \
                    or not is_mark(self.tokens[index + 1], "("):
                continue
            before = self.tokens[index - 1] if index else ";"
            if isinstance(before, Text) or not re.fullmatch(r"[A-Za-z_]\w*|[*&>]|::", before) or before == "return":
                continue
            close = end_of(self.tokens, index + 1)
            body = close + 1
            while body < len(self.tokens) and self.tokens[body] in ("const", "noexcept", "override"):
                body += 1
            if body < len(self.tokens) and is_mark(self.tokens[body], "{"):
                parameters = [parameter_name(piece) for piece in split(self.tokens[index + 2:close], ",")]
                yield Function(token, parameters, range(body, end_of(self.tokens, body)))

    def _constants(self):
        """Each constant and the tokens of its value."""
        for index, token in enumerate(self.tokens):
            if not isinstance(token, Text) and re.fullmatch(r"k[A-Z]\w*", token):
                value = index + 1
                if self.tokens[value:value + 2] == ["[", "]"]:
                    value += 2
                if value < len(self.tokens) and is_mark(self.tokens[value], "="):
                    rest = self.tokens[value + 1:]
                    yield token, split(rest[:rest.index(";")], ";")[0]

    def function_at(self, index):
        inside = [function for function in self.functions if index in function.body]
        return min(inside, key=lambda function: len(function.body), default=None)

    def calls(self, name):
        """The arguments of each call, and the function it stands in."""
        for index, token in enumerate(self.tokens[:-1]):
            if is_mark(token, name) and is_mark(self.tokens[index + 1], "("):
                function = self.function_at(index)
                if function:
                    yield split(self.tokens[index + 2:end_of(self.tokens, index + 1)], ","), function


class Reader:
    """Reads the texts of one library."""

    def __init__(self, root):
        root = pathlib.Path(root)
        self.sources = [Source(path) for folder in FOLDERS for path in sorted((root / folder).glob("*.cpp"))]
        headers = "\n".join(path.read_text(encoding="utf-8") for folder in FOLDERS
                            for path in sorted((root / folder).glob("*.h")))
        self.declared = set(re.findall(r"\b(\w+)\(", headers))
        self.texts = {}  # text: the files that it is in

    def read(self):
        # (source or None for all, function, position, form): form is the text, "\1" where the argument goes.
        waiting = [(None, name, position, "\1") for name, position in SINKS.items()]
        done = set()
        while waiting:
            sink = waiting.pop()
            if sink in done:
                continue
            done.add(sink)
            only, name, position, form = sink
            for source in self.sources:
                if only in (None, source):
                    waiting += self._read_calls(source, name, position, form)
        return self.texts

    def _read_calls(self, source, name, position, form):
        """Takes the texts of the calls; gives the further sinks: functions that hand a parameter on."""
        further = []
        for arguments, function in source.calls(name):
            if position >= len(arguments):
                raise Unreadable(f"{source.path}: {name} with {len(arguments)} arguments")
            for text in self._resolve(source, function, arguments[position], 0):
                parameters = re.findall("\x02(\\w+)\x02", text)
                whole = form.replace("\1", text)
                if not parameters:
                    self.texts.setdefault(whole, set()).add(source.path.name)
                elif function.name not in SINKS:
                    parameter = parameters[0]
                    everywhere = function.name in self.declared
                    further.append((None if everywhere else source, function.name,
                                    function.parameters.index(parameter),
                                    re.sub("\x02\\w+\x02", "\1", whole, count=1)))
        return further

    def _resolve(self, source, function, tokens, depth):
        """All texts that an expression can stand for. "\2name\2" stands for a parameter of the function."""
        if depth > 8:
            raise Unreadable(f"{source.path}: {' '.join(tokens)}")
        condition = split(tokens, "?")
        if len(condition) == 2:
            return [text for branch in split(condition[1], ":")
                    for text in self._resolve(source, function, branch, depth + 1)]
        texts = [""]
        sum_of = split(tokens, "+")
        for term in sum_of:
            alone = len(sum_of) == 1
            texts = [text + more for text in texts for more in self._term(source, function, term, alone, depth + 1)]
        return texts

    def _term(self, source, function, term, alone, depth):
        while len(term) > 4 and term[-4:] in (["." , "c_str", "(", ")"], [".", "data", "(", ")"]):
            term = term[:-4]
        if any(isinstance(token, Text) for token in term) and not any(is_mark(token, "(") for token in term):
            # Literals side by side; a name between them is a macro that varies.
            return ["".join(token if isinstance(token, Text) else "%s" for token in term)]
        if not alone:
            return self._constant(source, function, term, depth) or ["%s"]
        if len(term) == 1:
            return (self._constant(source, function, term, depth) or self._parameter(function, term[0])
                    or self._variable(source, function, term[0], depth))
        if is_mark(term[1], "(") and end_of(term, 1) == len(term) - 1:
            return self._call(source, function, term[0], split(term[2:-1], ","), depth)
        raise Unreadable(f"{source.path}: {' '.join(term)}")

    def _constant(self, source, function, term, depth):
        if len(term) == 1 and term[0] in source.constants:
            return self._resolve(source, function, source.constants[term[0]], depth)
        return None

    @staticmethod
    def _parameter(function, name):
        return [f"\2{name}\2"] if name in function.parameters else None

    def _variable(self, source, function, name, depth):
        """A local variable: what a printer leaves in it, or what it is initialised with."""
        if function.name in SINKS:
            return [f"\2{name}\2"]  # the sink's own work
        for printer, position in PRINTERS.items():
            for arguments, caller in source.calls(printer):
                if caller is function and arguments[0] == [name]:
                    return self._resolve(source, function, arguments[position], depth)
        for index in function.body:
            if source.tokens[index:index + 2] == [name, "="]:
                value = split(source.tokens[index + 2:], ";")[0]
                # What another function gives is data.
                return ["%s"] if any(is_mark(token, "(") for token in value) and not any(
                    isinstance(token, Text) for token in value) else self._resolve(source, function, value, depth)
        raise Unreadable(f"{source.path}: {function.name}: {name}")

    def _call(self, source, function, name, arguments, depth):
        if name in FORMATTERS:
            values = arguments[FORMATTERS[name] + 1:]
            return [self._filled(text, values, function)
                    for text in self._resolve(source, function, arguments[FORMATTERS[name]], depth)]
        for called in source.functions:
            if called.name == name:
                # A function of the file: every text in it may be what it gives.
                found = [token for index in called.body for token in [source.tokens[index]]
                         if isinstance(token, Text) or token in source.constants]
                texts = [text for token in dict.fromkeys(found)
                         for text in self._resolve(source, called, [token], depth)]
                if texts:
                    return texts
        raise Unreadable(f"{source.path}: {function.name}: {name}(...)")

    @staticmethod
    def _filled(text, values, function):
        """The format, with the function's own parameters in the place of their conversions."""
        waiting = iter(values)

        def fill(conversion):
            value = next(waiting, [])
            named = len(value) == 1 and value[0] in function.parameters and conversion[0] == "%ls"
            return f"\2{value[0]}\2" if named else conversion[0]

        return CONVERSION.sub(fill, text)


def read_texts(root):
    """The texts, without the line feed at their end, each with the files that it is in."""
    texts = {}
    for text, files in Reader(root).read().items():
        texts.setdefault(text.removesuffix("\n"), set()).update(files)
    return texts


def literals(source):
    """All texts in a source, those that stand side by side joined."""
    texts, last = [], None
    for token in tokens_of(source):
        if isinstance(token, Text):
            texts[-1:] = [texts[-1] + token] if last else [*texts[-1:], str(token)]
        last = isinstance(token, Text)
    return texts


def other_ways_out(root):
    """(file, call) of every platform call that puts a text out beside the sinks."""
    found = []
    for folder in FOLDERS:
        for path in sorted((pathlib.Path(root) / folder).glob("*.cpp")):
            source = Source(path)
            found += [(path.name, name) for name in sorted(PLATFORM_OUTPUT)
                      for _, function in source.calls(name) if function.name not in SINKS]
    return found


if __name__ == "__main__":
    for line, where in sorted(read_texts(sys.argv[1]).items()):
        print(f"{', '.join(sorted(where))}: {line!r}")
