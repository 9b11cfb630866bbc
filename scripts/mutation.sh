#!/usr/bin/env bash
# A mutation score of the test suite: scripts/mutation.sh --seed S --count N [--jobs J]
#
# Makes a deterministic sample of N mutants from seed S over the .cpp files of src/, providers/
# and platform/, with four operators:
#   flip-comparison   == <-> !=,  < -> <=,  <= -> <,  > -> >=,  >= -> >
#   negate-condition  if (c) / while (c)  ->  if (!(c)) / while (!(c))
#   drop-statement    an expression statement (a call, an assignment, ++/--) becomes ';'
#   constant          an integer literal changed by one (0 becomes 1)
# Comments, string and character literals and preprocessor lines are never mutated, nor
# declarations, return/throw statements, 'if constexpr', conditions that declare a variable,
# static_assert, enumerators, '= 0' of pure virtual functions and reserve() calls: there a mutant cannot compile
# or is equivalent by construction.
#
# Each mutant is applied in turn to a copy of the working tree in build/mutation/tree (the
# working tree itself is never changed), built incrementally in build/mutation/tree/build/debug
# (the debug configuration; CMAKE_CXX_COMPILER_LAUNCHER, e.g. ccache, is passed on), and the
# test programs covering the mutated folder run with a time bound of five times their unmutated
# run, at least 120 s:
#   src/               core_tests memoryprovider_tests fault_tests
#   providers/memory/  memoryprovider_tests fault_tests
#   providers/local/   localprovider_tests fault_tests
#   providers/zip/     zipprovider_tests
#   providers/dav/     davprovider_tests
#   platform/          platform_tests localprovider_tests
# The file is restored after each mutant, also on Ctrl-C. One line per mutant:
#   M07 src/items/Foo.cpp:123 flip-comparison '<' -> '<=': killed
# (a mutant that times out counts as killed), then
#   mutation: killed K, survived S, not compiling C of N
# Logs of each mutant's build and tests: build/mutation/log/.
#
# The sample is stable under edits elsewhere: every candidate site gets a rank from a hash of
# the seed, its file, operator and the text of its line, and the N lowest ranks are taken, so
# a change in one file leaves the mutants of the others as they were.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: scripts/mutation.sh --seed S --count N [--jobs J] [--list]" >&2; exit 2; }
seed="" count="" jobs=2 list=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seed) seed=${2:-}; shift 2 || usage ;;
    --count) count=${2:-}; shift 2 || usage ;;
    --jobs) jobs=${2:-}; shift 2 || usage ;;
    --list) list=1; shift ;;  # print the sample and stop
    *) usage ;;
  esac
done
[[ "$seed" =~ ^[0-9]+$ && "$count" =~ ^[0-9]+$ && "$jobs" =~ ^[0-9]+$ ]] || usage

exec python3 - "$seed" "$count" "$jobs" "$list" <<'PYTHON'
import hashlib, os, re, shutil, signal, subprocess, sys, time

seed, count, jobs, list_only = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3]), sys.argv[4] == "1"
root = os.getcwd()
work = os.path.join(root, "build", "mutation")
tree = os.path.join(work, "tree")
# The build sits at the same place relative to its sources as build/debug does, so that the
# compiler cache serves the unmutated files from other debug builds.
build = os.path.join(tree, "build", "debug")
logs = os.path.join(work, "log")

PROGRAMS = [
    ("src/", ["core_tests", "memoryprovider_tests", "fault_tests"]),
    ("providers/memory/", ["memoryprovider_tests", "fault_tests"]),
    ("providers/local/", ["localprovider_tests", "fault_tests"]),
    ("providers/zip/", ["zipprovider_tests"]),
    ("providers/dav/", ["davprovider_tests"]),
    ("platform/", ["platform_tests", "localprovider_tests"]),
]


def programs_for(path):
    for prefix, programs in PROGRAMS:
        if path.startswith(prefix):
            return programs
    raise SystemExit("mutation: no test programs for " + path)


# ---- finding the sites ---------------------------------------------------------------------

def mask(text):
    """The text with comments, the insides of string and character literals and preprocessor
    lines blanked (newlines kept), so that offsets and lines stay those of the original."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if c == "\n":
            line_start = True
            i += 1
            continue
        if line_start and c in " \t":
            i += 1
            continue
        if line_start and c == "#":
            while i < n and text[i] != "\n":
                if text[i] == "\\" and i + 1 < n and text[i + 1] == "\n":
                    out[i] = " "
                    i += 2
                    continue
                out[i] = " "
                i += 1
            continue
        line_start = False
        if text.startswith("//", i):
            while i < n and text[i] != "\n":
                out[i] = " "
                i += 1
            continue
        if text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            for k in range(i, end):
                if text[k] != "\n":
                    out[k] = " "
            i = end
            continue
        m = re.match(r'(?:u8|u|U|L)?R"([^()\\ ]{0,16})\(', text[i:i + 40])
        if m and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            close = ")" + m.group(1) + '"'
            end = text.find(close, i + m.end())
            end = n if end < 0 else end + len(close)
            for k in range(i + m.end(), end - len(close)):
                if text[k] != "\n":
                    out[k] = " "
            i = end
            continue
        if c in "\"'":
            # A digit separator (1'000) is not a character literal.
            if c == "'" and i > 0 and text[i - 1].isalnum() and i + 1 < n and text[i + 1].isalnum():
                i += 1
                continue
            k = i + 1
            while k < n and text[k] != c and text[k] != "\n":
                if text[k] == "\\":
                    out[k] = " "
                    k += 1
                out[k] = " "
                k += 1
            i = k + 1
            continue
        i += 1
    return "".join(out)


CODE, OTHER, ENUM, CLASS = "code", "other", "enum", "class"
TYPE_HEAD = re.compile(r"\b(namespace|class|struct|union)\b")
CODE_WORDS = {"else", "do", "try", "const", "noexcept", "override", "final", "mutable"}


def scopes(m):
    """For every offset of the masked text, the kind of the innermost brace around it, and the
    offsets where a statement may start."""
    kind = [OTHER] * len(m)
    starts = []
    stack = [(OTHER, 0)]  # (kind, parenthesis depth at the opening brace)
    parens = 0
    head_start = 0  # where the text since the last ';', '{' or '}' begins
    pending_start = True
    for i, c in enumerate(m):
        top = stack[-1][0]
        kind[i] = top
        if c.isspace():
            continue
        if pending_start and top == CODE and parens == stack[-1][1]:
            starts.append(i)
        pending_start = False
        if c == "(":
            parens += 1
        elif c == ")":
            parens -= 1
        elif c == "{":
            head = m[head_start:i]
            before = m[:i].rstrip()
            last = before[-1:] if before else ""
            word = re.search(r"(\w+)\s*$", before)
            word = word.group(1) if word else ""
            if re.search(r"\benum\b", head):
                k = ENUM
            elif TYPE_HEAD.search(head) and parens == stack[-1][1]:
                k = CLASS if not re.search(r"\bnamespace\b", head) else OTHER
            elif last in ")]" or word in CODE_WORDS:
                k = CODE
            elif last in "{;}" or (last == ":" and top == CODE):
                k = CODE if top == CODE else OTHER
            else:
                k = OTHER  # an initializer
            stack.append((k, parens))
            head_start = i + 1
            pending_start = True
        elif c == "}":
            if len(stack) > 1:
                parens = stack.pop()[1]
            head_start = i + 1
            pending_start = True
        elif c == ";":
            if parens == stack[-1][1]:
                head_start = i + 1
                pending_start = True
        elif c == ":" and top == CODE and parens == stack[-1][1]:
            if re.match(r"\s*(case\b|default\s*$)", m[head_start:i]) and not m.startswith("::", i) \
                    and m[i - 1] != ":":
                head_start = i + 1
                pending_start = True
    return kind, starts


def matching(m, i, open_, close):
    depth = 0
    for k in range(i, len(m)):
        if m[k] == open_:
            depth += 1
        elif m[k] == close:
            depth -= 1
            if depth == 0:
                return k
    return -1


REJECT_FIRST = {"return", "throw", "co_return", "co_yield", "break", "continue", "goto", "case",
                "default", "using", "typedef", "static_assert", "if", "for", "while", "do",
                "switch", "else", "try", "catch", "namespace", "template", "const", "constexpr",
                "static", "auto", "struct", "class", "enum", "union", "volatile", "thread_local",
                "inline", "extern", "friend", "virtual", "explicit", "operator", "asm", "alignas"}
# Calls that only size a buffer ahead: dropping them is equivalent by construction.
HINT = re.compile(r"[\w.>-]*(?:\.|->)(?:reserve|shrink_to_fit)\(")
EXPRESSION = re.compile(
    r"(?:\+\+|--)?\s*(?:::)?[A-Za-z_]\w*"
    r"(?:\s*(?:::|\.|->)\s*~?[A-Za-z_]\w*|\[[^\]]*\])*"
    r"\s*(?:\(|=(?!=)|\+=|-=|\*=|/=|%=|&=|\|=|\^=|<<=|>>=|\+\+|--|;)")


def sites_of(path, text):
    m = mask(text)
    kind, starts = scopes(m)
    line_of = lambda off: text.count("\n", 0, off) + 1
    found = []  # (offset, end, operator, replacement)

    # flip-comparison
    for mt in re.finditer(r"==|!=|<=|>=| < | > ", m):
        a, b = mt.start(), mt.end()
        op = mt.group().strip()
        if kind[a] != CODE:
            continue
        prev, nxt = m[a - 1:a], m[b:b + 1]
        if op in ("==", "!=", "<=", ">=") and (prev in "=!<>-" or nxt in "=>"):
            continue
        if op in ("<", ">") and (nxt in "<>=" or m[a - 1:a] in "<>-"):
            continue
        if re.search(r"operator\s*$", m[:a]):
            continue
        if op in ("<", ">"):
            a, b = a + 1, b - 1
        repl = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}[op]
        found.append((a, b, "flip-comparison", repl))

    # negate-condition
    for mt in re.finditer(r"\b(if|while)\s*\(", m):
        a = mt.start()
        if kind[a] != CODE:
            continue
        if re.match(r"if\s+constexpr", m[a:a + 20]):
            continue
        open_ = mt.end() - 1
        close = matching(m, open_, "(", ")")
        if close < 0:
            continue
        cond = m[open_ + 1:close]
        flat, depth = [], 0
        for ch in cond:
            depth += ch in "([{"
            depth -= ch in ")]}"
            flat.append(ch if depth == 0 else " ")
        flat = "".join(flat)
        if ";" in flat or re.search(r"(?<![=!<>])=(?!=)", flat) or not cond.strip():
            continue
        found.append((open_ + 1, close, "negate-condition", "!(" + text[open_ + 1:close] + ")"))

    # drop-statement
    for s in starts:
        first = re.match(r"[A-Za-z_]\w*", m[s:])
        if first and first.group() in REJECT_FIRST:
            continue
        if not EXPRESSION.match(m, s) or m[s] == ";" or HINT.match(m, s):
            continue
        depth, end = 0, -1
        for k in range(s, len(m)):
            ch = m[k]
            if ch in "([":
                depth += 1
            elif ch in ")]":
                depth -= 1
            elif ch == "{" and depth == 0:
                break
            elif ch == "}" and depth == 0:
                break
            elif ch == ";" and depth == 0:
                end = k + 1
                break
        if end < 0:
            continue
        found.append((s, end, "drop-statement", ";" + "\n" * text.count("\n", s, end)))

    # constant
    for mt in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)(?![\w.'])", m):
        a = mt.start()
        if kind[a] not in (CODE, OTHER, CLASS):
            continue
        line_start = m.rfind("\n", 0, a) + 1
        line_end = m.find("\n", a)
        line = m[line_start:line_end if line_end >= 0 else len(m)]
        if re.search(r"\b(static_assert|alignas|operator)\b", line):
            continue
        if kind[a] == CLASS and re.match(r"0\s*;", m[a:]) and re.search(r"=\s*$", m[:a]):
            continue  # '= 0' of a pure virtual function
        found.append((a, mt.end(1), "constant", mt.group(1)))

    result = []
    seen = {}
    for a, b, op, repl in found:
        ln = line_of(a)
        line_text = text.splitlines()[ln - 1].strip()
        key = (op, line_text)
        seen[key] = seen.get(key, 0) + 1
        digest = hashlib.sha256(f"{seed}\0{path}\0{op}\0{line_text}\0{seen[key]}".encode()).hexdigest()
        if op == "constant":
            repl = change_constant(repl, int(digest[-1], 16) % 2 == 0)
            if repl is None:
                continue
        result.append({"rank": digest, "path": path, "line": ln, "start": a, "end": b, "op": op,
                       "before": text[a:b], "after": repl})
    return result


def change_constant(literal, up):
    digits = literal.replace("'", "")
    if digits.lower().startswith("0x"):
        value, fmt = int(digits, 16), lambda v: "0x%x" % v
    elif len(digits) > 1 and digits.startswith("0"):
        value, fmt = int(digits, 8), lambda v: "0%o" % v
    else:
        value, fmt = int(digits), str
    value = value + 1 if up or value == 0 else value - 1
    return fmt(value)


def candidates():
    files = subprocess.run(["git", "ls-files", "--", "src/*.cpp", "providers/*.cpp", "platform/*.cpp"],
                           check=True, capture_output=True, text=True).stdout.split()
    sites = []
    for path in sorted(files):
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            sites += sites_of(path, f.read())
    return sites


# ---- the copy, the build and the tests ----------------------------------------------------

def sync_tree():
    """Brings build/mutation/tree to the working tree's tracked files, touching only files that
    differ, so that the build stays incremental."""
    files = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True).stdout
    files = [f.decode() for f in files.split(b"\0") if f]
    wanted = set()
    for f in files:
        if not os.path.isfile(f):
            continue
        wanted.add(f)
        dest = os.path.join(tree, f)
        with open(f, "rb") as src:
            data = src.read()
        try:
            with open(dest, "rb") as old:
                if old.read() == data:
                    continue
        except FileNotFoundError:
            os.makedirs(os.path.dirname(dest), exist_ok=True)
        with open(dest, "wb") as out:
            out.write(data)
        shutil.copymode(f, dest)
    for dirpath, dirnames, filenames in os.walk(tree):
        if dirpath == tree and "build" in dirnames:
            dirnames.remove("build")
        for name in filenames:
            rel = os.path.relpath(os.path.join(dirpath, name), tree)
            if rel not in wanted:
                os.remove(os.path.join(dirpath, name))


current = {"proc": None}


def run(cmd, log, timeout=None, cwd=None):
    """Runs cmd in its own process group, output to log; returns its exit status, or None when
    it ran out of time."""
    with open(log, "ab") as out:
        out.write(("$ " + " ".join(cmd) + "\n").encode())
        out.flush()
        proc = subprocess.Popen(cmd, stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                cwd=cwd, start_new_session=True)
        current["proc"] = proc
        try:
            return proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        finally:
            stop(proc)
            current["proc"] = None


def stop(proc):
    """Ends a process group; SIGTERM first, so that ninja ends the compilers it started."""
    if proc.poll() is not None:
        return
    os.killpg(proc.pid, signal.SIGTERM)
    try:
        proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()


def configure(log):
    launcher = os.environ.get("CMAKE_CXX_COMPILER_LAUNCHER", "")
    # Test programs load the shared library: a mutant in it relinks the library alone.
    cmd = ["cmake", "--preset", "debug", "-DQKFL_BUILD_BENCHMARKS=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
    if launcher:
        cmd.append("-DCMAKE_CXX_COMPILER_LAUNCHER=" + launcher)
    if run(cmd, log, cwd=tree) != 0:
        raise SystemExit("mutation: configuring the copy failed, see " + log)


def build_targets(targets, log):
    return run(["cmake", "--build", build, "--target", *targets, "--", "-j%d" % jobs], log) == 0


def test_command(program, exclude):
    cmd = [os.path.join(build, "tests", program), "--gtest_brief=1", "--gtest_fail_fast"]
    if exclude:
        cmd.append("--gtest_filter=-" + ":".join(exclude))
    return cmd


def baseline(program, log):
    """Runs a program unmutated; returns (seconds, tests to leave out because they fail already)."""
    exclude = []
    for attempt in range(2):
        began = time.monotonic()
        cmd = test_command(program, exclude)
        cmd.remove("--gtest_fail_fast")
        status = run(cmd, log, timeout=3600, cwd=os.path.join(build, "tests"))
        seconds = time.monotonic() - began
        if status == 0:
            return seconds, exclude
        with open(log, errors="replace") as f:
            failed = sorted(set(re.findall(r"^\[  FAILED  \] ([\w/.]+)", f.read(), re.M)))
        if not failed:
            break
        exclude = failed
        print(f"mutation: {program} fails unmutated; left out: {' '.join(failed)}", flush=True)
    raise SystemExit(f"mutation: {program} does not pass unmutated, see {log}")


def main():
    os.makedirs(logs, exist_ok=True)
    sites = candidates()
    sample = sorted(sites, key=lambda s: s["rank"])[:count]
    print(f"mutation: {len(sample)} of {len(sites)} candidate sites, seed {seed}", flush=True)
    if list_only:
        for number, site in enumerate(sample, 1):
            print("M%02d %s:%d %s %r -> %r" % (number, site["path"], site["line"], site["op"],
                                                site["before"], site["after"]))
        return

    os.makedirs(tree, exist_ok=True)
    sync_tree()
    setup_log = os.path.join(logs, "setup.txt")
    open(setup_log, "w").close()
    configure(setup_log)
    needed = sorted({p for s in sample for p in programs_for(s["path"])})
    if not build_targets(needed, setup_log):
        raise SystemExit("mutation: the unmutated build failed, see " + setup_log)
    bounds, excludes = {}, {}
    for program in needed:
        seconds, excludes[program] = baseline(program, setup_log)
        bounds[program] = max(120.0, 5 * seconds)
        print(f"mutation: {program} runs {seconds:.0f} s unmutated, bound {bounds[program]:.0f} s",
              flush=True)

    totals = {"killed": 0, "survived": 0, "not compiling": 0}
    survivors = []
    for number, site in enumerate(sample, 1):
        ident = "M%02d" % number
        log = os.path.join(logs, ident + ".txt")
        open(log, "w").close()
        target = os.path.join(tree, site["path"])
        with open(target, "rb") as f:
            original = f.read()
        text = original.decode("utf-8", errors="surrogateescape")
        mutated = text[:site["start"]] + site["after"] + text[site["end"]:]
        before = " ".join(site["before"].split())
        after = " ".join(site["after"].split())
        if len(before) > 60:
            before = before[:57] + "..."
        if len(after) > 60:
            after = after[:57] + "..."
        began = time.monotonic()
        try:
            with open(log, "a") as f:
                f.write(f"{site['path']}:{site['line']} {site['op']}\n--- {site['before']}\n+++ {site['after']}\n")
            with open(target, "wb") as f:
                f.write(mutated.encode("utf-8", errors="surrogateescape"))
            programs = programs_for(site["path"])
            if not build_targets(programs, log):
                outcome = "not compiling"
            else:
                outcome = "survived"
                # The quickest program first: most mutants are killed by the first that runs.
                for program in sorted(programs, key=lambda p: bounds[p]):
                    status = run(test_command(program, excludes.get(program)), log,
                                 timeout=bounds[program], cwd=os.path.join(build, "tests"))
                    if status is None:
                        outcome = "killed (timed out)"
                        break
                    if status != 0:
                        outcome = "killed by " + program
                        break
        finally:
            with open(target, "wb") as f:
                f.write(original)
        totals["killed" if outcome.startswith("killed") else outcome] += 1
        line = (f"{ident} {site['path']}:{site['line']} {site['op']} '{before}' -> '{after}': "
                f"{outcome} ({time.monotonic() - began:.0f} s)")
        print(line, flush=True)
        if outcome == "survived":
            survivors.append(line)
    print(f"mutation: killed {totals['killed']}, survived {totals['survived']}, "
          f"not compiling {totals['not compiling']} of {len(sample)}", flush=True)


def interrupted(signum, frame):
    raise KeyboardInterrupt


for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
    signal.signal(sig, interrupted)
try:
    main()
except KeyboardInterrupt:
    if current["proc"] is not None:
        stop(current["proc"])
    print("mutation: interrupted; the copy is restored", file=sys.stderr)
    sys.exit(130)
PYTHON
