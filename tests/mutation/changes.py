"""The small changes that tools/mutate makes to a source, one at a time: what a maintainer gets wrong.

`changes_of(text)` gives every change as (begin, end, replacement, kind).
"""

import re

# What is looked for, and what takes its place, by kind. clang-format puts blanks around an operator
# between two operands, and around nothing else.
CHANGES = [(rf" {re.escape(old)} ", [f" {new} " for new in changed.split(",")], "operator")
           for old, changed in {
               "<": "<=,>=", "<=": "<,>", ">": ">=,<=", ">=": ">,<", "==": "!=", "!=": "==",
               "+": "-", "-": "+", "*": "/", "&": "|", "|": "&", "+=": "-=", "|=": "&=",
               "&&": "||", "||": "&&", "?": "|| true ?,&& false ?"}.items()]
CHANGES += [
    (r"\+\+", ["--"], "operator"),
    (r"--", ["++"], "operator"),
    (r"!(?!=)", [""], "operator"),
    (r"\btrue\b", ["false"], "operator"),
    (r"\bfalse\b", ["true"], "operator"),
    (r"(?<=return )[^;{}]+(?=;)", [r"!(\g<0>)"], "operator"),
    (r"\bmemory_order_(?:acquire|release|acq_rel|seq_cst)\b", ["memory_order_relaxed"], "order"),
    (r"\bnotify_all\b", ["notify_one"], "notify"),
    # One flag of several.
    (r"\b[A-Z]+_[A-Z]+ \| (?=[A-Z]+_[A-Z])|\bstd::ios_base::\w+ \| (?=std::ios_base::)", [""],
     "flag"),
    (r"(?<=[A-Z]) \| [A-Z]+_[A-Z]+\b| \| std::ios_base::\w+", [""], "flag"),
    # A link, or what it points to.
    (r"\blstat\(", ["stat("], "link"),
    (r"(?<=::)stat\(", ["lstat("], "link"),
    (r"(?<=, )0(?=\) [!=]= 0)", ["AT_SYMLINK_NOFOLLOW"], "link"),
    (r"\bAT_SYMLINK_NOFOLLOW\b", ["0"], "link"),
]
NUMBER = r"(?<![\w.])(?:0x[0-9a-f]+|\d+)(?=u?\b)"
CONDITION = r"\b(?:if|while) \("
# A statement that declares nothing: a call, an assignment, a step, a jump. It is left out.
STATEMENT = (r"(?<=\n) +(?!return |throw [a-z]|using |case |if |for |while |do |else )"
             r"((?:\+\+|--|\*)?[\w:.>*\[\]-]+(?:(?:\(| [+|]?= )(?:[^;{}]|\{[^{}]*\})*)?;)")
LOCK = r"(?:std::)?lock_guard<(?:[^<>;]|<[^<>;]*>)+> (?:const )?\w+\([^;]*\);"
ANY_LOCK = r"(?:std::)?(?:lock_guard|unique_lock)<(?:[^<>;]|<[^<>;]*>)+> (?:const )?\w+\([^;]*\);"
NOTIFY = r"[\w.>-]+(?:\.|->)notify_(?:one|all)\(\);|\bsem_post\([^;]*\);"
CALL = r"(?:[\w:]|\.|->)+\("
# A statement of any kind that stands in lines of its own and has no block.
LINE = r"(?<=\n)( +)(?!return\b|throw\b|using\b|case\b|break\b|continue\b)([\w:*+-][^;{}]*;)(?=\s*\n)"


def code_of(text):
    """The text without comments, the insides of strings, and lines to leave alone; as long."""
    text = re.sub(r'//[^\n]*|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'',
                  lambda found: (" " if found[0][0] == "/" else "s") * len(found[0]), text)
    return re.sub(r"(?m)^#.*$|\bstatic_assert\([^;]*;|__builtin_prefetch\([^;]*;",
                  lambda found: re.sub(r"[^\n]", " ", found[0]), text)


def end_of_condition(code, start):
    """Where the parenthesis closes that was opened before `start`."""
    depth = 1
    for place in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[place], 0)
        if depth == 0:
            return place
    raise ValueError("a parenthesis is never closed")


def begins_statement(code, place):
    return code[:place].rstrip()[-1:] in tuple(";{}:)")


def swaps_of(code, text):
    """Two neighbouring statements of one block, one a call or a lock, change places."""
    before = None
    for found in re.finditer(LINE, code):
        if not begins_statement(code, found.start()):
            before = None
            continue
        if before and before[1] == found[1] and not code[before.end():found.start()].strip() and \
                any(re.match(rf"{CALL}|{ANY_LOCK}", line[2]) for line in (before, found)):
            first, second = before.span(2), found.span(2)
            yield (first[0], second[1], text[second[0]:second[1]] + text[first[1]:second[0]] +
                   text[first[0]:first[1]], "swap")
        before = found


def early_notifications_of(code, text):
    """A notification goes ahead of the lock under which it is made."""
    for found in re.finditer(NOTIFY, code):
        locks = [lock for lock in re.finditer(ANY_LOCK, code[:found.start()])
                 if "\n}\n" not in code[lock.end():found.start()]]
        if locks:
            begin = locks[-1].start()
            yield begin, found.end(), f"{found[0]} {text[begin:found.start()]}", "notify"


def changes_of(text):
    """Every (begin, end, replacement, kind)."""
    code = code_of(text)
    for pattern, replacements, kind in CHANGES:
        for found in re.finditer(pattern, code):
            for new in replacements:
                yield found.start(), found.end(), new.replace(
                    r"\g<0>", text[found.start():found.end()]), kind
    for found in re.finditer(NUMBER, code):
        octal = re.fullmatch(r"0\d+", found[0])
        value = int(found[0], 8 if octal else 0)
        for other in {value + 1, max(0, value - 1)} - {value}:
            new = f"0{other:o}" if octal else str(other)
            yield found.start(), found.end(), new, "number"
    for found in re.finditer(CONDITION, code):
        end = end_of_condition(code, found.end())
        begin = max(found.end(), code.rfind("; ", found.end(), end) + 2)
        yield begin, end, f"!({text[begin:end]})", "condition"
    for found in re.finditer(STATEMENT, code):
        if begins_statement(code, found.start()):
            yield found.start(1), found.end(1), ";", "statement"
    for found in re.finditer(LOCK, code):
        yield found.start(), found.end(), "", "lock"
    yield from swaps_of(code, text)
    yield from early_notifications_of(code, text)


KINDS = ("operator", "number", "condition", "statement", "lock", "swap", "order", "notify", "flag",
         "link")
