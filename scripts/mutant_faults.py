"""The faults that mutants.py can plant in one source text: where, of which kind, and what stands there then."""

import re
from dataclasses import dataclass

# Longer than any statement worth naming in full.
NAME_CAPACITY = 150


@dataclass(frozen=True)
class Fault:
    """One fault: source[start:end] becomes replacement. The name is the same as long as the line is."""
    path: str
    kind: str
    start: int
    end: int
    replacement: str
    name: str

    def planted(self, source):
        return source[:self.start] + self.replacement + source[self.end:]


COMMENT_OR_TEXT = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)
PREPROCESSOR = re.compile(r'^[ \t]*#[^\n]*(?:(?<=\\)\n[^\n]*)*', re.MULTILINE)


def blanked(text):
    return re.sub(r'[^\n]', ' ', text)


def code_of(source):
    """The source in its own length, with blanks for comments, texts and preprocessor lines."""
    code = COMMENT_OR_TEXT.sub(lambda match: blanked(match.group()), source)
    return PREPROCESSOR.sub(lambda match: blanked(match.group()), code)


def closing(code, opening):
    """The place of the bracket that closes the one at 'opening'; the end of the code when none does."""
    depth = 0
    for place in range(opening, len(code)):
        if code[place] in "([{":
            depth += 1
        elif code[place] in ")]}":
            depth -= 1
            if depth == 0:
                return place
    return len(code)


BODY_BEFORE = re.compile(r'(\)|\]|\belse|\btry|\bdo|\bnoexcept|\bconst|\boverride|->\s*[\w:]+)\s*$')


def in_a_body(code, place):
    """True when the innermost open brace before 'place' opens a function's or a statement's body."""
    depth = 0
    for before in range(place - 1, -1, -1):
        if code[before] == "}":
            depth += 1
        elif code[before] == "{":
            if depth == 0:
                return BODY_BEFORE.search(code[max(0, before - 80):before]) is not None
            depth -= 1
    return False


STATEMENT = re.compile(r'^[ ]+(?:throw\b|(?:\+\+|--|\*)?[\w:.>\-\[\]*]+(?:\(|\s*(?:\||\+|-|&)?=[^=]))', re.MULTILINE)
NO_STATEMENT = re.compile(r'\s*(return|if|for|while|switch|case|default|else|sizeof|static_assert|catch)\b')


def statements(code):
    """The extents of plain statements: calls, assignments, throws; declarations and control flow are none."""
    for match in STATEMENT.finditer(code):
        before = code[:match.start()].rstrip()
        if NO_STATEMENT.match(match.group()) or not before or before[-1] not in "{};":
            continue
        start = match.start() + len(match.group()) - len(match.group().lstrip())
        end = start
        while end < len(code) and code[end] not in ";}":
            end = closing(code, end) + 1 if code[end] in "([{" else end + 1
        if end < len(code) and code[end] == ";" and in_a_body(code, start):
            yield start, end + 1


def dropped_calls(_, code):
    for start, end in statements(code):
        yield start, end, ";"


def swapped_order(source, code):
    extents = list(statements(code))
    for (start, end), (next_start, next_end) in zip(extents, extents[1:]):
        first, second = source[start:end], source[next_start:next_end]
        # Two plain assignments may stand in either order.
        if not code[end:next_start].strip() and first != second and "(" in first and "(" in second:
            yield start, next_end, second + source[end:next_start] + first


def negated_conditions(source, code):
    for match in re.finditer(r'\b(?:if|while)\s*\(', code):
        opening = match.end() - 1
        end = closing(code, opening)
        start = max(opening, code.rfind(";", opening, end)) + 1
        yield start, end, "!(" + source[start:end].strip() + ")"
    opposite = {"==": "!=", "!=": "==", "&&": "||", "||": "&&"}
    for match in re.finditer(r'==|!=|&&|\|\|', code):
        # "Key&& other" is a type.
        if code[match.start() - 1] == " ":
            yield match.start(), match.end(), opposite[match.group()]


FLAG = r'\b(?:[A-Z][A-Z0-9_]{2,}|k[A-Z]\w+)\b'


def dropped_flags(_, code):
    for match in re.finditer(r'\s*(?<!\|)\|(?![|=])\s*' + FLAG, code):
        yield match.start(), match.end(), ""
    for match in re.finditer(FLAG + r'\s*\|(?![|=])\s*', code):
        if not code[:match.start()].rstrip().endswith("|"):
            yield match.start(), match.end(), ""


CONSTANTS = {"true": "false", "false": "true", "TRUE": "FALSE", "FALSE": "TRUE",
             "ERROR_SUCCESS": "ERROR_GEN_FAILURE", "ERROR_INSTALL_FAILURE": "ERROR_SUCCESS"}


def other_number(number):
    """One more; a long time half as much again, for no clock tells a millisecond."""
    if number.startswith("0x"):
        return hex(int(number, 16) + 1)
    return str(int(number) + (int(number) // 2 if int(number) >= 1000 else 1))


def wrong_constants(_, code):
    for match in re.finditer(r'(?<![\w.])(0x[0-9A-Fa-f]+|\d+)(?=U?L*\b)(?!\.)', code):
        yield match.start(), match.end(), other_number(match.group())
    for match in re.finditer(r'\b(true|false|TRUE|FALSE|ERROR_[A-Z_]+)\b', code):
        yield match.start(), match.end(), CONSTANTS.get(match.group(), "ERROR_SUCCESS")
    shifted = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
    for match in re.finditer(r'(?<= )(<=|>=|<|>)(?= )', code):
        yield match.start(), match.end(), shifted[match.group()]


def altered_texts(source, _):
    covered = [match.span() for match in PREPROCESSOR.finditer(source)]
    for match in COMMENT_OR_TEXT.finditer(source):
        text = match.group()
        inside = any(start <= match.start() < end for start, end in covered)
        if inside or text[0] not in '"R' or source[:match.start()].endswith("extern "):
            continue
        # A letter in the middle, none of an escape or a conversion.
        letters = [found.start() for found in re.finditer(r'(?<![\\%\w])[A-Za-z]\w|(?<=\w)[A-Za-z]', text)
                   if not re.search(r'[\\%][a-z]{0,2}$', text[:found.start()]) and found.start() > 1]
        if letters:
            place = match.start() + min(letters, key=lambda letter: abs(letter - len(text) // 2))
            yield place, place + 1, "z" if source[place] in "qQ" else "q"


VIEWS = {"KEY_WOW64_64KEY": "KEY_WOW64_32KEY", "KEY_WOW64_32KEY": "KEY_WOW64_64KEY",
         "HKEY_LOCAL_MACHINE": "HKEY_CURRENT_USER", "HKEY_CURRENT_USER": "HKEY_LOCAL_MACHINE",
         "HKEY_CLASSES_ROOT": "HKEY_LOCAL_MACHINE", "KEY_READ": "KEY_ALL_ACCESS", "KEY_ALL_ACCESS": "KEY_READ",
         "KEY_SET_VALUE": "KEY_READ", "KEY_QUERY_VALUE": "KEY_ALL_ACCESS", "kReadWriteAccess": "KEY_READ",
         "SC_MANAGER_CONNECT": "SC_MANAGER_ALL_ACCESS", "SC_MANAGER_ALL_ACCESS": "SC_MANAGER_CONNECT",
         "SERVICE_ALL_ACCESS": "SERVICE_QUERY_STATUS"}


def wrong_views(_, code):
    for match in re.finditer(r'\b(' + "|".join(VIEWS) + r')\b', code):
        yield match.start(), match.end(), VIEWS[match.group()]


POLICIES = {"BestEffort": "LetRegistryErrorThrough", "MustStop": "BestEffort", "LetRegistryErrorThrough": "BestEffort"}


def changed_policies(_, code):
    for match in re.finditer(r'(?<=corvi::)(BestEffort|MustStop|LetRegistryErrorThrough)(?=\()', code):
        yield match.start(), match.end(), POLICIES[match.group()]


KINDS = {"negated condition": negated_conditions, "dropped call": dropped_calls, "dropped flag": dropped_flags,
         "wrong constant": wrong_constants, "altered text": altered_texts, "swapped order": swapped_order,
         "wrong view": wrong_views, "changed policy": changed_policies}


def one_line(text):
    return " ".join(text.split())


def named(path, kind, source, extent, seen):
    start, end, replacement = extent
    line_start = source.rfind("\n", 0, start) + 1
    line_end = source.find("\n", end)
    line = one_line(source[line_start:line_end if line_end >= 0 else len(source)])
    change = f" [{one_line(source[start:end])} -> {replacement}]" if len(replacement) + end - start < 60 else ""
    name = f"{path}: {kind}: {line[:NAME_CAPACITY]}{change if kind not in ('dropped call', 'swapped order') else ''}"
    seen[name] = seen.get(name, 0) + 1
    if seen[name] > 1:
        name += f" (no. {seen[name]})"
    return Fault(path, kind, start, end, replacement, name)


def faults_in(path, source):
    """Every fault that can be planted in this file, each once."""
    code, seen = code_of(source), {}
    for kind, find in KINDS.items():
        for extent in sorted(set(find(source, code))):
            yield named(path, kind, source, extent, seen)
