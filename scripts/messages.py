#!/usr/bin/env python3
"""The log rows of src/: every Message and Trace constant with its texts resolved, one row a line.

  messages.py           LOGID LEVEL MODULE BIZ_NAME "TEXT", sorted, as tests/abi/messages.txt records them
  messages.py --where   LOGID, LEVEL, MODULE, BIZ_NAME, TEXT, FILE, FUNCTIONS, separated by tabs: the functions
                        are those that log the row, separated by blanks

Escapes in a text stand as they do in the source. What cannot be read is an error that names file and line, as a
row is that nothing logs: a Message or a Trace in any other form than a constant of its own, a text or a number
that is no literal and no constant, a call of a log entry that goes past the rows, two constants or two rows alike.
"""
import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
RECORD = "src/core/log_record.h"  # declares Message and Trace and says what a Trace logs
ENTRIES = {RECORD, "src/core/log_entries.cc"}
TOKEN = re.compile(r'''(?P<directive>^[ \t]*\#(?:\\\n|[^\n])*)
  | (?P<skipped>//[^\n]*|/\*.*?\*/|\s+)
  | "(?P<text>(?:[^"\\\n]|\\.)*)"
  | (?P<char>'(?:[^'\\\n]|\\.)+')
  | (?P<number>\d[\w.']*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign>::|.)''', re.X | re.S | re.M)
LEVEL = re.compile(r"QN_LOG_([GEWIDFT])$")
ENTRY = re.compile(r"((log|console|println)_site|qn_log_(v?core|println|console_impl|fault_\w*|\w*adpater)|QN_LOG_RECORD)$")
TRACING = re.compile(r"(trace_enter|trace_leave|TraceScope)$")

Token = collections.namedtuple("Token", "kind text line")
Row = collections.namedtuple("Row", "logid level module biz_name text")


class Unreadable(Exception):
    pass


def tokens_of(file, source):
    found, line = [], 1
    for match in TOKEN.finditer(source):
        kind, text = match.lastgroup, match.group(match.lastgroup)
        if kind == "directive" and re.search(r"\b(Message|Trace)\b", text):
            raise Unreadable(f"{file}:{line}: a Message or a Trace in a macro")
        if kind not in ("directive", "skipped"):
            found.append(Token(kind, text, line))
        line += match.group().count("\n")
    return found


def closing(tokens, at):
    """The index of the brace that closes the one at `at`."""
    depth = 0
    for i in range(at, len(tokens)):
        depth += {"{": 1, "}": -1}.get(tokens[i].text if tokens[i].kind == "sign" else "", 0)
        if depth == 0:
            return i
    raise Unreadable(f"line {tokens[at].line}: a brace without its end")


def functions_of(tokens):
    """For each token the name of the function that it lies in, or None."""
    names, head, i = [None] * len(tokens), [], 0
    while i < len(tokens):
        text = tokens[i].text if tokens[i].kind == "sign" else ""
        if text == "{":
            words = [token.text for token in head]
            if "(" in words and "=" not in words:  # a function; all else with a "(" in its head has a "=" too
                first = words.index("(") - 1
                start = first
                while start > 0 and words[start - 1] in ("::", "~") or words[start] in ("::", "~"):
                    start -= 1
                end = closing(tokens, i)
                names[i:end] = ["".join(words[start:first + 1])] * (end - i)
                i = end
            elif not {"namespace", "struct", "class", "extern"} & set(words):
                i = closing(tokens, i)
            head = []
        elif text in ("}", ";"):
            head = []
        else:
            head.append(tokens[i])
        i += 1
    return names


class Source:
    def __init__(self, file, text):
        self.file, self.tokens = file, tokens_of(file, text)
        self.functions = functions_of(self.tokens)
        self.texts = {}      # of the constants, by name
        self.rows = {}       # lists of rows by the constant's name
        self.uses = collections.defaultdict(set)  # functions by the name that they use

    def fail(self, at, what):
        raise Unreadable(f"{self.file}:{self.tokens[at].line}: {what}")

    def words(self, start, end):
        return [token.text for token in self.tokens[max(start, 0):end]]

    def read_texts(self):
        for i in range(len(self.tokens)):
            if self.words(i, i + 2) != ["constexpr", "char"] or self.words(i + 3, i + 6) != ["[", "]", "="]:
                continue
            name, text, end = self.tokens[i + 2].text, "", i + 6
            while self.tokens[end].kind == "text":
                text, end = text + self.tokens[end].text, end + 1
            if self.tokens[end].text == ";":
                if name in self.texts:
                    self.fail(i, f"a second {name}")
                self.texts[name] = text

    def read_rows(self, shared, trace_texts):
        for i, token in enumerate(self.tokens):
            if token.kind != "name":
                continue
            if ENTRY.match(token.text) and self.file not in ENTRIES:
                self.fail(i, f"{token.text} is called without a row")
            if TRACING.match(token.text) and self.file != RECORD and not re.match(
                    r"\w*\(\w+\)|;", "".join(self.words(i + 1, i + 5))):
                self.fail(i, f"{token.text} of something else than a constant")
            if token.text not in ("Message", "Trace"):
                self.uses[token.text].add(self.functions[i])
            elif self.words(i - 1, i) == ["constexpr"] and self.words(i + 2, i + 3) == ["{"]:
                self.read_row(i, shared, trace_texts)
            elif not (self.words(i - 3, i) == ["using", "qn", "::"] and self.words(i + 1, i + 2) == [";"] or
                      self.words(i - 1, i) == ["const"] and self.words(i + 1, i + 2) == ["&"] and
                      self.words(i + 3, i + 4)[0] in (":", ",", ")", ";") or
                      self.words(i - 1, i) == ["struct"] and self.file == RECORD):
                self.fail(i, f"a {token.text} in a form that is not known")

    def read_row(self, at, shared, trace_texts):
        kind, name = self.tokens[at].text, self.tokens[at + 1].text
        end = closing(self.tokens, at + 2)
        fields = [[]]
        for token in self.tokens[at + 3:end]:
            if token.kind == "sign" and token.text == ",":
                fields.append([])
            else:
                fields[-1].append(token)
        if name in self.rows:
            self.fail(at, f"a second {name}")
        if len(fields) not in {"Message": (5,), "Trace": (6, 7)}[kind] or self.tokens[end + 1].text != ";":
            self.fail(at, f"{name} has not the fields of a {kind}")

        def text(field):
            if field and all(token.kind == "text" for token in field):
                return "".join(token.text for token in field)
            known = self.texts.get(field[0].text, shared.get(field[0].text)) if len(field) == 1 else None
            return known if known is not None else self.fail(at, f"{name} has a text that is not known")

        def logid(field):
            if len(field) != 1 or not re.fullmatch(r"0|[1-9]\d*", field[0].text):
                self.fail(at, f"{name} has a logid that is no number")
            return int(field[0].text)

        if kind == "Message":
            level = LEVEL.match(fields[0][0].text) if len(fields[0]) == 1 else None
            if not level:
                self.fail(at, f"{name} has a level that is not known")
            self.rows[name] = [Row(logid(fields[1]), level[1], *map(text, fields[2:]))]
        else:
            module, function = text(fields[0]), text(fields[1])
            own = [text(field) for field in fields[6:]]
            self.rows[name] = [Row(logid(fields[i]), "T", module, text(fields[i + 1]),
                                   told % (function, *(own or [caller])))
                               for i, (told, caller) in zip((2, 4), trace_texts)]

    def trace_texts(self):
        """What the two functions of a Trace log, and whom they name as the caller where the row names nobody."""
        texts = [[token.text for i, token in enumerate(self.tokens)
                  if token.kind == "text" and self.functions[i] == name] for name in ("trace_enter", "trace_leave")]
        if "kNoCaller" not in self.texts or \
                any(len(found) != 1 or found[0].count("%s") != 2 for found in texts):
            self.fail(0, "trace_enter() and trace_leave() have not one text each, or there is no kNoCaller")
        return [(found[0], self.texts["kNoCaller"]) for found in texts]


def read_all():
    """Rows with the file and the functions that log them."""
    files = sorted(path for path in (ROOT / "src").rglob("*") if path.suffix in (".h", ".cc"))
    sources = [Source(str(path.relative_to(ROOT)), path.read_text()) for path in files]
    shared = {}
    for source in sources:
        source.read_texts()
        if source.file.endswith(".h"):
            for name, text in source.texts.items():
                shared[name] = text if shared.get(name, text) == text else None
    trace_texts = next(source for source in sources if source.file == RECORD).trace_texts()
    for source in sources:
        source.read_rows(shared, trace_texts)

    found, seen = [], {}
    for source in sources:
        readers = sources if source.file.endswith(".h") else [source]
        for name, rows in source.rows.items():
            functions = set().union(*(reader.uses[name] for reader in readers)) - {None}
            if not functions:
                raise Unreadable(f"{source.file}: no function logs {name}")
            for row in rows:
                if row in seen:
                    raise Unreadable(f"{source.file}: {name} is the same row as in {seen[row]}")
                seen[row] = f"{source.file}: {name}"
                found.append((row, source.file, " ".join(sorted(functions))))
    return sorted(found)


def main():
    if sys.argv[1:] not in ([], ["--where"]):
        sys.exit("usage: messages.py [--where]")
    try:
        for row, file, functions in read_all():
            if sys.argv[1:]:
                print(f"{row.logid:04}", *row[1:], file, functions, sep="\t")
            else:
                print(f'{row.logid:04} {row.level} {row.module:<12} {row.biz_name:<34} "{row.text}"')
    except Unreadable as error:
        sys.exit(f"messages.py: {error}")


main()
