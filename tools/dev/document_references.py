"""What the documents refer to: links, files, tests, and the commands that they tell people to type."""
import ast
import functools
import json
import pathlib
import re
import subprocess
import tomllib

CODE = re.compile(r"`([^`\n]+)`")
BLOCK = re.compile(r"^ {4}(.*)$|^```.*\n((?:.*\n)*?)```$", re.MULTILINE)
FOLDERS = "src|sim|tests|tools|docs|examples|fuzz|bench|cmake"
PATH = re.compile(rf"(?<![\w/.\\])(?:\./)?((?:{FOLDERS})/[\w./*{{}},-]*\w[\w*}}]*|run|test)(?![\w\\])")

STANDS_FOR_MANY = re.compile(r"NAME|failed-SEED")


@functools.cache
def tracked():
    return subprocess.run(["git", "ls-files"], capture_output=True, text=True, check=True).stdout.split("\n")


@functools.cache
def text_of(name):
    return pathlib.Path(name).read_text("utf-8")


@functools.cache
def texts_below(folder, pattern):
    return "\n".join(file.read_text("utf-8") for file in sorted(pathlib.Path(folder).rglob(pattern)))


def documents():
    return [name for name in tracked() if name.endswith(".md") and pathlib.Path(name).exists()]


def anchors(name):
    """As the usual web front ends make them of headings."""
    for heading in re.findall(r"^#+ (.*)$", text_of(name), re.MULTILINE):
        yield re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def links():
    for name in documents():
        for target in re.findall(r"\]\(([^)\s]+)\)", text_of(name)):
            if re.match(r"\w+:", target):
                continue
            file, _, anchor = target.partition("#")
            found = pathlib.Path(name).parent / file if file else pathlib.Path(name)
            if not found.exists():
                yield f"{name} links to {target}: there is no such file"
            elif anchor and found.suffix == ".md" and anchor not in anchors(str(found)):
                yield f"{name} links to {target}: there is no such heading"


def pieces(name):
    """The code of a document: what stands between backticks, and the lines of its blocks."""
    text = text_of(name)
    for block in BLOCK.finditer(text):
        yield from (block[1] or block[2] or "").splitlines()
    yield from CODE.findall(BLOCK.sub("", text))


def files():
    for name in documents():
        for piece in pieces(name):
            for path in PATH.findall(piece):
                options = re.fullmatch(r"(.*)\{(.*)\}(.*)", path)
                for each in [options[1] + word + options[3] for word in options[2].split(",")] if options else [path]:
                    if not any(pathlib.Path().glob(STANDS_FOR_MANY.sub("*", each.rstrip("/")))):
                        yield f"{name} names {each}: there is no such file"


def cases():
    """Tests by name: `Suite.Case`, `test_file::case`, filters of ctest, gtest and unittest."""
    known = set(re.findall(r"^TEST(?:_F|_P)?\((\w+, \w+)\)", texts_below("tests", "*.cpp"), re.MULTILINE))
    known = {each.replace(", ", ".") for each in known}
    suites = {each.split(".")[0] for each in known}
    for name in documents():
        for piece in pieces(name):
            filters = re.findall(r"--gtest_filter='?([\w.*]+)|ctest .*-R '?([\w.*]+)", piece)
            for case in [first or second for first, second in filters]:
                if not any(re.fullmatch(case.replace(".", r"\.").replace("*", ".*"), each) for each in known):
                    yield f"{name}: {case} matches no test"
            if re.fullmatch(r"[A-Z]\w+\.[A-Z]\w+", piece) and piece.split(".")[0] in suites and piece not in known:
                yield f"{name} names the test {piece}, which tests/ does not have"
            for file, case in re.findall(r"\b(test_\w+)::(test_\w+)", piece) + re.findall(r"-p (test_\w+)\.py -k (\w+)", piece):
                if not re.search(rf"def {case}\w*\(", text_of_test(file)):
                    yield f"{name}: tests/e2e/{file}.py has no {case}"


def text_of_test(file):
    return "".join(path.read_text() for path in pathlib.Path("tests/e2e").rglob(file + ".py"))


def targets():
    """What ninja may be asked for: presets, and the names that the build files make."""
    builds = {each["name"] for each in json.loads(text_of("CMakePresets.json"))["configurePresets"]}
    made = texts_below("cmake", "*.cmake") + text_of("CMakeLists.txt")
    for name in documents():
        for piece in pieces(name):
            for build in re.findall(r"cmake --preset (\w[\w-]*)|ninja -C build/([\w-]+)", piece):
                if not builds & set(build):
                    yield f'{name}: "{piece}" names a build that CMakePresets.json does not have'
            for target in re.findall(r"ninja -C build/[\w-]+ (\w+)", piece):
                if not re.search(rf"\b{target}\b", made):
                    yield f'{name}: "{piece}" names a target that no build file makes'


def typed():
    """Words and options of our own programs."""
    ctl = set(re.findall(r'^    \{"([\w-]+)", \d', text_of("tools/kioskctl/main.cpp"), re.MULTILINE))
    options = set(re.findall(r'"(--?[a-z]+)"', text_of("tools/kioskctl/main.cpp")))
    service = set(re.findall(r'L"(--[\w-]+)"', text_of("src/service/main.cpp")))
    scripts = {name: name for name in tracked() if name.startswith("tools/") and (name.endswith(".py") or "." not in name)}
    scripts |= {"./run": "run", "./test": "test", "tools/portal-check": "tools/portal-check/__main__.py"}
    for name in documents():
        for piece in pieces(name):
            for word in re.findall(r"^(?:[>$] )?(?:wine build/windows/)?kioskctl(?:-dev)?(?:\.exe)?((?: --\w+)*) ([a-z][\w-]+)", piece):
                if word[1] not in ctl or not set(word[0].split()) <= options:
                    yield f'{name}: kioskctl does not know "{piece}"'
            for option in re.findall(r"NorvaneKiosk(?:Sim)?\.exe (--[\w-]+)", piece):
                if option not in service:
                    yield f'{name}: the service\'s program does not know "{piece}"'
            for script, source in scripts.items():
                if found := re.match(rf"(?:(?:/usr/bin/)?python3 )?{re.escape(script)}(?= |$)(.*)", piece):
                    for option in re.findall(r"(?<= )--[\w-]+", re.split(r"#|&&| \S+\.exe", found[1])[0]):
                        known = text_of(source)
                        if option not in known and not (option == "--help" and "ArgumentParser" in known):
                            yield f'{name}: {source} does not know {option}, as in "{piece}"'


def blocks_of(text):
    """Those that are set in by four columns."""
    for block in re.findall(r"(?:^ {4}.*\n(?:\n+(?= {4}))?)+", text, re.MULTILINE):
        yield re.sub(r"^ {4}", "", block, flags=re.MULTILINE)


def blocks():
    return ((name, block) for name in documents() for block in blocks_of(text_of(name)))


def reads_json(text):
    """One value after the other, in which {...} stands for what was said before."""
    text = text.replace("{...}", "{}").strip()
    while text.startswith("{"):
        text = text[json.JSONDecoder().raw_decode(text)[1]:].strip()


def accepted(text, *command):
    done = subprocess.run(command, input=text, capture_output=True, text=True)
    if done.returncode != 0:
        raise ValueError(done.stdout + done.stderr)


def compiles(text):
    """Statements, or a function."""
    body = text if re.match(r"\S+ \w+\(.*\{\n", text) else "void Block() {\n" + text + "}\n"
    headers = ("windows.h", "string", "sim/http.h", "sim/clock.h", "win32/worker_wake.h")
    text = "".join(f"#include <{each}>\n" for each in headers) + "using namespace kiosk;\n" + body
    accepted(text, "x86_64-w64-mingw32-g++-posix", "-std=c++23", "-fsyntax-only", "-Wall", "-Werror", "-Isrc", "-I.", "-DUNICODE",
             "-D_WIN32_WINNT=0x0A00", "-x", "c++", "-")


SHELL = r"(?:\(?\. )?(?:\./(?:run|test)\b|tools/|build/|(?:/usr/bin/)?python3 |cmake |ctest |ninja |wine )"
# What a block is by its beginning, and what reads it; raises ValueError where that cannot.
KINDS = (
    (r"\{", reads_json),
    (r"\[+[\w.]+\]+\n *\w+ = ", tomllib.loads),
    (r"sys\.path|from \w+ import|import ", ast.parse),
    (r"(?:std|sim)::", compiles),
    (SHELL, lambda text: accepted(text, "shellcheck", "-s", "bash", "-e", "SC1091,SC2102", "-")),
)


def contents():
    for name, text in blocks():
        for beginning, read in KINDS:
            if re.match(beginning, text):
                try:
                    read(text)
                except (ValueError, SyntaxError) as error:
                    yield f"{name}: cannot read the block that begins with {text.splitlines()[0]!r}: {error}"


CHECKS = (links, files, cases, targets, typed, contents)
