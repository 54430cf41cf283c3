#!/usr/bin/env python3
"""Keeps tools/deps.txt complete: every external command that the scripts, tests, benchmarks,
CI and Makefile call must be listed there, either under the package that install-deps.sh
installs or as a command of Debian's base system.

A word counts as a command when it names an executable on PATH that a Debian package owns;
commands of Essential packages (coreutils, grep, sed, ...) are always present and pass. Every
command listed under a package must also be on PATH once the packages are installed, so a
package that does not provide the command we expect (as wine64 does not provide `wine`) fails
here instead of on a fresh machine.
"""
import os
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCANNED_DIRS = ["tests", "bench", "tools", "fuzz", "cmake", "cli", ".ci", "python"]
SCANNED_FILES = ["Makefile", "CMakeLists.txt"]
SCRIPT_SUFFIXES = (".sh", ".py", ".cmake", ".txt", ".in", "")
SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".h", ".hpp")
STRING = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
# A word in command position: at the start of a line or string, after a shell separator or a
# word that runs the next one, as the first item of a Python argument list, or after COMMAND.
COMMAND = re.compile(r"""(?:^|[|;&(`]|\$\(|\b(?:then|do|else|exec|xargs(?:\s+-\S+)*|env|sudo|nice|
                         command\s+-v|timeout\s+\S+|COMMAND|find_program\(\w+)\s)\s*
                         (?:\w+=\S*\s+)*["']?(/usr/bin/[\w+.-]+|[A-Za-z][\w+.-]+)""",
                     re.MULTILINE | re.VERBOSE)


def read_deps():
    declared, base = {}, set()
    with open(os.path.join(ROOT, "tools", "deps.txt")) as f:
        for line in f:
            fields = line.split("#", 1)[0].split()
            if not fields:
                continue
            if fields[0] == "base":
                base.update(fields[1:])
            else:
                for command in fields[1:]:
                    declared[command] = fields[0]
    return declared, base


def scanned_paths():
    for name in SCANNED_FILES:
        yield os.path.join(ROOT, name)
    for top in SCANNED_DIRS:
        for folder, dirs, files in os.walk(os.path.join(ROOT, top)):
            dirs[:] = [d for d in dirs if d not in ("fixtures", "corpus", "data", "__pycache__")]
            for name in files:
                yield os.path.join(folder, name)


def words_of(path):
    """The words of a script outside its comments, or of a C/C++ source's string literals."""
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except (UnicodeDecodeError, OSError):
        return set()
    if path.endswith(SOURCE_SUFFIXES):
        # A literal is a command line when its first word is followed by an option, a quote,
        # a redirection or the end of the literal after a space ("ffmpeg " + arguments).
        # So is the first item of a braced list of strings: {"lame", "-r", ...} (a table row
        # such as {"file", Made::file} is not a command line).
        return set(re.findall(r'"(/usr/bin/[\w+.-]+|[A-Za-z][\w+.-]+)(?: [-\'"<>]| ")', text) +
                   re.findall(r'\{\s*"([A-Za-z][\w+.-]+)"\s*,\s*"', text))
    if path.endswith((".cmake", "CMakeLists.txt")):
        return set(re.findall(r"\b(?:COMMAND|find_program\(\w+)\s+([A-Za-z][\w+.-]+)", text))
    elif os.path.splitext(path)[1] in SCRIPT_SUFFIXES:
        text = "\n".join(re.sub(r"(^|\s)#.*", "", line) for line in text.splitlines())
        if path.endswith(".py"):
            # A ctypes field list, [("size", ctypes.c_uint32), ...], names fields, not commands.
            text = re.sub(r"\(\s*[\"']\w+[\"']\s*,\s*(?:ctypes\.|_[A-Z])", "(", text)
            # The first item of a list of strings: ["lame", "-r", ...], not ("size", c_uint32).
            text += "\n" + "\n".join(
                re.findall(r"[\[(]\s*[\"']([\w+.-]+)[\"']\s*,\s*[\"']", text))
    else:
        return set()
    return set(COMMAND.findall(text))


def owners(paths):
    """Debian package owning each path (resolved through links), or nothing for local files."""
    def query(candidates):
        out = subprocess.run(["dpkg-query", "-S", *candidates], capture_output=True, text=True)
        return {line.split(": ", 1)[1]: line.split(":", 1)[0].split(",")[0].strip()
                for line in out.stdout.splitlines() if ": " in line}
    paths = sorted(set(paths))
    if not paths:
        return {}
    direct = query(paths)
    real = {p: os.path.realpath(p) for p in paths if p not in direct}
    resolved = query(sorted(set(real.values()))) if real else {}
    return {**direct, **{p: resolved[r] for p, r in real.items() if r in resolved}}


def dependencies(package, depth=3):
    """The package and what it depends on, a few levels down: a metapackage's commands come
    from the packages it pulls in."""
    found, frontier = {package}, [package]
    for _ in range(depth):
        out = subprocess.run(["dpkg-query", "-W", "-f=${Depends},${Pre-Depends}\n", *frontier],
                             capture_output=True, text=True)
        names = {re.split(r"[\s(:]", alt.strip())[0]
                 for alt in re.split(r"[,|]", out.stdout) if alt.strip()}
        frontier = sorted(names - found)
        found |= names
        if not frontier:
            break
    return found


def essential(packages):
    if not packages:
        return set()
    out = subprocess.run(["dpkg-query", "-W", "-f=${Package} ${Essential}\n", *packages],
                         capture_output=True, text=True)
    return {line.split()[0] for line in out.stdout.splitlines() if line.endswith(" yes")}


def main():
    declared, base = read_deps()
    problems = []
    located = {c: c if c.startswith("/") else shutil.which(c) for c in declared}
    provider = owners(p for p in located.values() if p)
    closure = {}
    for command, package in sorted(declared.items()):
        path = located[command]
        if path in provider and package not in closure:
            closure[package] = dependencies(package)
        if not path or not os.access(path, os.X_OK):
            problems.append(f"tools/deps.txt: '{command}' is not on PATH after installing {package}")
        elif path in provider and provider[path] not in closure[package]:
            problems.append(f"tools/deps.txt: '{command}' comes from {provider[path]}, not {package}")

    used = {}
    for path in scanned_paths():
        if path == os.path.abspath(__file__):
            continue
        for word in words_of(path):
            if word.startswith("/usr/bin/") and os.path.basename(word) in declared:
                continue
            if word not in declared and word not in base:
                used.setdefault(word, os.path.relpath(path, ROOT))
    found = {w: shutil.which(w) for w in used}
    executables = {w: p for w, p in found.items() if p and re.match(r"^/(usr/)?s?bin/", p)}
    owner = owners(executables.values())
    always_there = essential(set(owner.values()))
    for word, path in sorted(executables.items()):
        package = owner.get(path)
        if package and package not in always_there:
            problems.append(f"{used[word]}: calls '{word}' from package {package}, "
                            "which tools/deps.txt does not list")
    for problem in problems:
        print(f"check_deps: {problem}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
