"""The faults that a line of C++ may have, found in clang's syntax tree, and a source text with faults built in.

What is taken: relational operators and their boundaries, arithmetic, && and ||, conditions negated, exits never taken,
statements and checks left out, true and false, statuses, integers one off, increments, conversions of the byte order.
Logging is left alone.

A fault is an expression in which OstrelMutant(its number) chooses between what stands there and what is wrong. So lines
keep their numbers, and faults may lie in each other.
"""
import bisect
import ctypes
import json
import multiprocessing
import pathlib
import re
import shlex
import subprocess

import clang.cindex
from clang.cindex import CursorKind as Kind

TOKEN = re.compile(rb'//[^\n]*|/\*.*?\*/|\s+|(?P<word>(?:u8|L)?"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|0[xX][\da-fA-F\']+\w*|'
                   rb"\d[\d.']*\w*|\w+|->\*?|\+\+|--|<<=|>>=|<=>|<<|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|\.\.\.|.)", re.S)
OPERATORS = {
    b"<": [b"<=", b">="], b"<=": [b"<", b">"], b">": [b">=", b"<="], b">=": [b">", b"<"], b"==": [b"!="], b"!=": [b"=="],
    b"&&": [b"||"], b"||": [b"&&"], b"+": [b"-"], b"-": [b"+"], b"*": [b"+"], b"/": [b"*"], b"%": [b"/"],
    b"&": [b"|"], b"|": [b"&"], b"^": [b"|"], b"<<": [b">>"], b">>": [b"<<"],
    b"+=": [b"-="], b"-=": [b"+="], b"*=": [b"+="], b"/=": [b"*="], b"|=": [b"&="], b"&=": [b"|="], b"<<=": [b">>="],
}
BYTE_ORDER = re.compile(r"(be|le)(16|32|64)toh|hto(be|le)(16|32|64)|hto[ns][sl]?|ntoh[sl]")
LOGGING = re.compile(rb"Debug(PrintF|HexDump|PutS)|QxLog\w*|Ostrel_LogPrint\w*|Log[A-Z]\w*|OSTREL_REPORT\w*")
GUARDS = re.compile(r"OSTREL_REQUIRE\w*")
STEPS = {Kind.COMPOUND_STMT, Kind.IF_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT, Kind.WHILE_STMT, Kind.CASE_STMT,
         Kind.DEFAULT_STMT}
EXITS = {Kind.RETURN_STMT, Kind.CONTINUE_STMT, Kind.BREAK_STMT}
PLAIN, STATEMENT, GUARD, CONDITION = range(4)


class Mutant:
    number = 0

    def __init__(self, file, text, start, end, form, wrong, what, constant=None):
        self.file, self.start, self.end, self.form, self.wrong = file, start, end, form, wrong
        self.what, self.constant = what, constant  # where a constexpr is, and the word for it that lets it vary
        self.line = text.count(b"\n", 0, start) + 1
        self.lines = set(range(self.line, text.count(b"\n", 0, end) + 2))
        if constant is not None:
            self.lines.add(text.count(b"\n", 0, constant[0]) + 1)

    def key(self):
        return self.file, self.start, self.end, self.what

    def words(self):
        return f"{self.number:4} {self.file}:{self.line}: {self.what}"

    def around(self, right):
        """What stands in the place of the text `right`."""
        choice = b"OstrelMutant(%d)" % self.number
        if self.form == STATEMENT:
            return b"(void)(%s ? (void)0 : (void)(%s))" % (choice, right)
        if self.form == GUARD:
            return b"if (!%s) %s" % (choice, right)
        if self.form == CONDITION:
            return b"(%s ? (%s) : static_cast<bool>(%s))" % (choice, self.wrong, right)
        return b"(%s ? (%s) : (%s))" % (choice, self.wrong, right)


def woven(text, mutants):
    """The text with the faults in it."""
    for mutant in mutants:
        if mutant.constant is not None:
            at, word = mutant.constant
            text = text[:at] + word.ljust(len(b"constexpr")) + text[at + len(b"constexpr"):]

    def weave(start, end, inside):
        out, at = [], start
        while inside:
            outer = inside[0]
            within = [mutant for mutant in inside[1:] if mutant.end <= outer.end]
            out += [text[at:outer.start], outer.around(weave(outer.start, outer.end, within))]
            at = outer.end
            inside = [mutant for mutant in inside[1:] if mutant.start >= at]
        return b"".join([*out, text[at:end]])

    return weave(0, len(text), sorted(mutants, key=lambda mutant: (mutant.start, -mutant.end)))


class Source:
    """A file's text and tokens, by offset."""

    def __init__(self, name, path):
        self.name, self.text = name, path.read_bytes()
        self.tokens = [(match.start(), match.group()) for match in TOKEN.finditer(self.text) if match["word"]]
        self.starts = [start for start, _ in self.tokens]
        self.index = {start: number for number, (start, _) in enumerate(self.tokens)}
        self.ends = {start + len(word): number for number, (start, word) in enumerate(self.tokens)}

    def between(self, start, end):
        return [word for _, word in self.tokens[bisect.bisect_left(self.starts, start):bisect.bisect_left(self.starts, end)]]

    def flat(self, start, end):
        """The text on one line, without comments."""
        return b" ".join(self.between(start, end))

    def shown(self, span):
        return " ".join(self.text[span[0]:span[1]].decode().split())

    def at(self, start, steps=0):
        return self.tokens[self.index[start] + steps][1] if start in self.index else b""

    def after(self, end):
        number = self.ends.get(end)
        return self.tokens[number + 1][1] if number is not None and number + 1 < len(self.tokens) else b""

    def closing(self, start):
        """The offset of the bracket that closes the first one from `start` on."""
        depth = 0
        for at, word in self.tokens[self.index[start]:]:
            depth += (word == b"(") - (word == b")")
            if word == b")" and depth == 0:
                return at
        return None


class Finder:
    def __init__(self, root, wanted):
        self.root, self.wanted, self.sources, self.found = root, wanted, {}, {}
        self.file_location = clang.cindex.conf.lib.clang_getFileLocation
        self.file_location.argtypes = [clang.cindex.SourceLocation] + [ctypes.c_void_p] * 4

    def source_of(self, cursor):
        """The source in which a cursor stands, if that is wanted."""
        if cursor.location.file is None:
            return None
        name = cursor.location.file.name
        if name not in self.sources:
            path = pathlib.Path(name).resolve()
            inside = path.is_relative_to(self.root) and self.wanted(str(path.relative_to(self.root)))
            self.sources[name] = Source(str(path.relative_to(self.root)), path) if inside else None
        return self.sources[name]

    def offset(self, location):
        """Where it is written: in the argument of a macro, and not where the macro is."""
        offset = ctypes.c_uint()
        self.file_location(location, None, None, None, ctypes.byref(offset))
        return offset.value

    def span(self, cursor):
        return self.offset(cursor.extent.start), self.offset(cursor.extent.end)

    def add(self, form, span, wrong, what):
        mutant = Mutant(self.source.name, self.source.text, *span, form, wrong, what, self.constant)
        self.found.setdefault(mutant.key(), mutant)

    def exchange(self, span, wrong, shown=None):
        self.add(PLAIN, span, wrong, f"`{self.source.shown(span)}` with `{(shown or wrong).decode()}`")

    def unit(self, path, arguments):
        options = clang.cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
        unit = clang.cindex.Index.create().parse(str(path), args=arguments, options=options)
        cursors = [(cursor, source) for cursor in unit.cursor.get_children() if (source := self.source_of(cursor))]
        self.constant, self.macros = None, {}
        for cursor, self.source in cursors:
            if cursor.kind == Kind.MACRO_INSTANTIATION:
                self.macros[self.source.name, self.span(cursor)[0]] = cursor.spelling
                self.macro(cursor)
        for cursor, self.source in cursors:
            if cursor.kind.is_declaration():
                self.visit(cursor, None)

    def macro(self, cursor):
        span = self.span(cursor)
        if BYTE_ORDER.fullmatch(cursor.spelling) and self.source.between(*span)[1:2] == [b"("]:
            self.exchange(span, self.source.flat(*span).split(b"(", 1)[1].rsplit(b")", 1)[0])
        elif GUARDS.fullmatch(cursor.spelling) and self.source.at(span[0], -1) != b"define":
            self.add(GUARD, span, b"", f"`{self.source.shown(span)}` is left out")

    def visit(self, cursor, parent):
        kind, span, source = cursor.kind, self.span(cursor), self.source
        words = source.between(*span) if kind in (Kind.VAR_DECL, Kind.FUNCTION_DECL, Kind.IF_STMT) else []
        if kind in (Kind.STATIC_ASSERT, Kind.ENUM_DECL) or b"consteval" in words[:6] or words[1:2] == [b"constexpr"]:
            if kind != Kind.FUNCTION_DECL and kind != Kind.VAR_DECL:
                return
        macro = self.macros.get((source.name, span[0]), "")
        if kind.is_expression() and LOGGING.fullmatch(source.at(span[0])):
            return
        outside = self.constant
        if kind in (Kind.VAR_DECL, Kind.FUNCTION_DECL) and b"constexpr" in words[:4]:
            word = b"const" if kind == Kind.VAR_DECL else b"" if b"inline" in words[:4] else b"inline"
            self.constant = source.text.index(b"constexpr", span[0]), word
        children = list(cursor.get_children())
        if not macro:
            self.consider(cursor, parent, span, children)
        for child in children[1:] if kind == Kind.CASE_STMT else children:
            self.visit(child, kind)
        self.constant = outside

    def consider(self, cursor, parent, span, children):
        kind, source = cursor.kind, self.source
        if kind.is_expression() and parent in STEPS and source.after(span[1]) == b";" and \
                source.at(span[0], -1) in (b";", b"{", b"}", b")", b":", b"else"):
            self.add(STATEMENT, span, b"", f"`{source.shown(span)}` is left out")
        if kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self.operator(span, self.span(children[0]), self.span(children[1]))
        elif kind == Kind.UNARY_OPERATOR:
            self.unary(span)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT):
            self.branch(cursor, span, children)
        elif kind == Kind.CONDITIONAL_OPERATOR:
            self.negate(self.span(children[0]))
        elif kind == Kind.CXX_BOOL_LITERAL_EXPR:
            self.exchange(span, {b"true": b"false", b"false": b"true"}.get(source.flat(*span), b"!"))
        elif kind == Kind.INTEGER_LITERAL and re.fullmatch(rb"0[xX][\da-fA-F']+|\d[\d']*[uUlL]*", source.flat(*span)):
            self.exchange(span, source.flat(*span) + b" + 1")
            if re.search(rb"[1-9a-fA-F]", source.flat(*span)):
                self.exchange(span, source.flat(*span) + b" - 1")
        elif kind == Kind.RETURN_STMT and children:
            status = source.flat(*self.span(children[0]))
            if re.fullmatch(rb"k\w+Err", status):
                self.exchange(self.span(children[0]), b"kGenericErr" if status == b"kNoErr" else b"kNoErr")

    def operator(self, span, left, right):
        sign = self.source.between(left[1], right[0])
        if len(sign) != 1 or not span[0] <= left[0] < left[1] < right[0] < right[1] <= span[1]:
            return
        for other in OPERATORS.get(sign[0], []):
            self.exchange(span, b" ".join([self.source.flat(*left), other, self.source.flat(*right)]), other)

    def unary(self, span):
        words = self.source.between(*span) or [b""]
        for sign, other in ((b"++", b"--"), (b"--", b"++")):
            if words[0] == sign:
                self.exchange(span, b" ".join([other, *words[1:]]))
            elif words[-1] == sign:
                self.exchange(span, b" ".join([*words[:-1], other]))
        if words[0] == b"!":
            self.add(CONDITION, span, b"!!(%s)" % b" ".join(words[1:]), f"`{self.source.shown(span)}` is negated")

    def branch(self, cursor, span, children):
        """The condition of an if or a while: the last of its expressions that ends where the bracket closes."""
        closing = self.source.closing(span[0]) if span[0] in self.source.index else None
        conditions = [child for child in children if child.kind.is_expression() and closing is not None and
                      self.span(child)[1] <= closing and not self.source.between(self.span(child)[1], closing)]
        if not conditions:
            return
        condition = self.span(conditions[-1])
        self.negate(condition)
        body = children[children.index(conditions[-1]) + 1:]
        inner = [*body[0].get_children()][-1:] if len(body) == 1 and body[0].kind == Kind.COMPOUND_STMT else body
        if cursor.kind == Kind.IF_STMT and len(body) == 1 and inner and inner[0].kind in EXITS:
            self.add(CONDITION, condition, b"false", f"`if ({self.source.shown(condition)})` does not exit")

    def negate(self, span):
        text = self.source.flat(*span)
        if not text.startswith(b"!") and not any(sign in OPERATORS for sign in text.split()):  # those are changed as such
            self.add(CONDITION, span, b"!(%s)" % text, f"`{self.source.shown(span)}` is negated")


def in_one(job):
    """The faults of one source and the headers that it takes in."""
    root, paths, entry = job
    finder = Finder(root, lambda name: below(name, paths))
    words = shlex.split(entry["command"])
    kept = [word for word in words[1:] if word.startswith(("-I", "-D", "-std="))]
    systems = [words[number + 1] for number, word in enumerate(words) if word == "-isystem"]
    finder.unit(entry["file"], [*kept, *(f"-isystem{system}" for system in systems), "-w"])
    return finder.found


def below(name, paths):
    return any(name == path or name.startswith(f"{path}/") for path in paths)


def find(root, paths, jobs):
    """Every fault that the sources below the paths may have, in the order of the text."""
    listing = root / "build" / "mutants" / "listing"
    subprocess.run(["cmake", "-S", root, "-B", listing, "-G", "Ninja", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"],
                   stdout=subprocess.DEVNULL, check=True)
    entries = [entry for entry in json.loads((listing / "compile_commands.json").read_text())
               if below(str(pathlib.Path(entry["file"]).relative_to(root)), paths)]
    found = {}
    with multiprocessing.Pool(jobs) as pool:
        for some in pool.imap(in_one, [(root, paths, entry) for entry in entries]):
            found.update(some)
    return [found[key] for key in sorted(found)]
