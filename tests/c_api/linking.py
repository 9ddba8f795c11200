#!/usr/bin/env python3
"""linking.py CASE CC CXX LIBRARY_DIRECTORY INCLUDE_DIRECTORY: programs of others with the library, linked and run as
their authors would. Exit code 77: what the case needs is not installed."""
import itertools
import os
import pathlib
import re
import subprocess
import sys
import tempfile

case, cc, cxx, libdir, include = sys.argv[1:6]
SHARED = ["-L" + libdir, "-Wl,-rpath," + libdir, "-lmorvane"]
STATIC = [str(pathlib.Path(libdir) / "libmorvane.a")]
FORMS = {"shared": SHARED, "static": STATIC}
ALL_FLAGS = "volatile sig_atomic_t g_quit, g_hup, g_usr1, g_sigctx, g_goodbye;\n"

# A handler of the library sets the flag; the program looks at its own.
SEES_ITS_FLAG = """
int main(void)
{
    on_sigquit(SIGTERM);
    return g_quit == 1 && g_goodbye == 1 ? 0 : 1;
}
"""


def run(command, ok=True):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    if ok and result.returncode != 0:
        sys.exit("%s\nended with %d\n%s%s" % (" ".join(map(str, command)), result.returncode, result.stdout,
                                              result.stderr))
    return result


def build(place, name, sources, *link, compiler=None, flags=()):
    """Compiles sources (name of a file: text) and links them with what follows; the path of the program."""
    objects = []
    for file, text in sources.items():
        (place / file).write_text(text, encoding="utf-8")
        tool = compiler or (cxx if file.endswith(".cpp") else cc)
        run([tool, "-Wall", "-Werror", "-O1", *flags, "-I" + include, "-c", place / file, "-o", place / (file + ".o")])
        objects.append(place / (file + ".o"))
    linker = cxx if any(file.endswith(".cpp") for file in sources) else cc
    run([linker, *objects, "-o", place / name, *link])
    return place / name


def package(name, what):
    found = run(["pkg-config", what, name], ok=False)
    if found.returncode != 0:
        print("skipped: %s is not installed" % name)
        sys.exit(77)
    return found.stdout.split()


def flags(place):
    header = '#include "log.h"\n#include "util.h"\n'
    own = header + 'volatile sig_atomic_t g_quit = 0, g_goodbye = 0;\n' + SEES_ITS_FLAG
    own_cxx = header + 'extern "C" { volatile sig_atomic_t g_quit = 0, g_goodbye = 0; }\n' + SEES_ITS_FLAG
    for form, link in FORMS.items():
        for suffix, text in (("c", own), ("cpp", own_cxx)):
            run([build(place, "own", {"own." + suffix: text}, *link)])
            run([build(place, "hidden", {"hidden." + suffix: text}, *link, flags=["-fvisibility=hidden"])])
            run([build(place, "none", {"none." + suffix: header + SEES_ITS_FLAG}, *link)])
        # In an archive of the program: taken, if it stands before the library and the program names a flag itself.
        (place / "flags.c").write_text(header + ALL_FLAGS, encoding="utf-8")
        run([cc, "-I" + include, "-c", place / "flags.c", "-o", place / "flags.o"])
        run(["ar", "rcs", place / "libapp.a", place / "flags.o"])
        run([build(place, "archive", {"archive.c": header + SEES_ITS_FLAG}, place / "libapp.a", *link)])


def flags_traps(place):
    """The two silent traps: the library sees its own flag, and the program's stays 0."""
    blind = "volatile sig_atomic_t g_quit, g_goodbye;\nvoid on_sigquit(int);\n"
    main = "#include <signal.h>\n" + blind + SEES_ITS_FLAG
    if run([build(place, "trap", {"trap.c": main}, *SHARED, flags=["-fvisibility=hidden"])], ok=False).returncode != 1:
        sys.exit("hidden flags without our header reach the shared library: the documents say that they do not")
    (place / "flags.c").write_text('#include "util.h"\nvolatile sig_atomic_t g_quit, g_goodbye;\n'
                                   "int app_saw(void) { return g_quit; }\n", encoding="utf-8")
    run([cc, "-I" + include, "-c", place / "flags.c", "-o", place / "flags.o"])
    run(["ar", "rcs", place / "libapp.a", place / "flags.o"])
    late = "#include <signal.h>\nvoid on_sigquit(int);\nint main(void) { on_sigquit(SIGTERM); return 0; }\n"
    program = build(place, "late", {"late.c": late}, place / "libapp.a", *STATIC)
    if "app_saw" in run(["nm", program]).stdout:
        sys.exit("flags in an archive are pulled in by the library: the documents say that they are not")


def chomp_alone(place):
    text = '#include "strops.h"\n#include <string.h>\nint main(void)\n{\n    char s[] = "a\\r\\n";\n    chomp(s);\n' \
           '    return strcmp(s, "a");\n}\n'
    for link in FORMS.values():
        run([build(place, "chomp", {"chomp.c": text}, *link)])
    opener = """#include <dlfcn.h>
#include <string.h>
int main(int argc, char** argv)
{
    void* const lib = dlopen(argv[argc - 1], RTLD_NOW | RTLD_LOCAL);
    void (*const f)(char*) = lib != 0 ? (void (*)(char*))dlsym(lib, "morvane_chomp") : 0;
    char s[] = "a\\n";
    if (f == 0) {
        return 1;
    }
    f(s);
    return strcmp(s, "a") != 0 || dlclose(lib) != 0;
}
"""
    run([build(place, "opener", {"opener.c": opener}), pathlib.Path(libdir) / "libmorvane.so"])


OURS = """#include <stdlib.h>
#include "log.h"
#include "strops.h"
DECLARE_MLL(MLL_COMMON);
int our_lines(void);
int our_lines(void)
{
    char text[64] = "", s[] = "end\\r\\n";
    FILE* const out = fmemopen(text, sizeof text, "w");
    glog_init("linking");
    log_timefmt(&g_log, f_NO_TIME);
    log_default(&g_log, out);
    chomp(s);
    log_norm("%s\\n", s);
    fclose(out);
    return strcmp(text, "(NRM)  end\\n");
}
"""


def with_other(place, name, theirs):
    """A program with a library that has one of our names, in both orders of linking."""
    others = package(name, "--libs")
    compile_flags = package(name, "--cflags")
    for (form, ours), first in itertools.product(FORMS.items(), (True, False)):
        link = [*ours, *others] if first else [*others, *ours]
        program = build(place, "both", {"ours.c": "#include <string.h>\n" + OURS, "theirs.c": theirs}, *link,
                        flags=compile_flags)
        run([program])


def glib(place):
    with_other(place, "glib-2.0", """#include <glib.h>
#include <string.h>
int our_lines(void);
static int g_seen;
static void handler(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer data)
{
    (void)domain, (void)level, (void)data;
    g_seen += strcmp(message, "a warning of GLib") == 0;
}
int main(void)
{
    g_log_set_default_handler(handler, NULL);
    g_warning("a warning of GLib");
    const int rc = our_lines();
    g_warning("a warning of GLib");
    return rc != 0 || g_seen != 2;
}
""")


def libite(place):
    with_other(place, "libite", """#include <string.h>
char* chomp(char* str);
int our_lines(void);
int main(void)
{
    char s[] = "theirs\\n";
    return strcmp(chomp(s), "theirs") != 0 || our_lines() != 0;
}
""")


def plain_c(_place):
    shared = pathlib.Path(libdir) / "libmorvane.so"
    needed = re.findall(r"NEEDED.*\[(.*)\]", run(["readelf", "-d", shared]).stdout)
    if needed != ["libc.so.6"]:
        sys.exit("the shared library needs %s" % needed)
    undefined = run(["nm", "-u", *STATIC]).stdout
    if found := re.findall(r"\b(?:_Z\w+|__cxa_\w+|__gxx_\w+|_Unwind\w+)", undefined):
        sys.exit("the static library refers to %s" % sorted(set(found)))


def strict_headers(place):
    """Each header by itself, twice, in strict C11 and in every C++ that it is for, under each compiler there is."""
    compilers = [(cc, cxx)] + [pair for pair in (("gcc", "g++"), ("clang-14", "clang++-14"))
                               if run(["sh", "-c", "command -v " + pair[1]], ok=False).returncode == 0]
    uses = '#include <stdlib.h>\n#include "log.h"\nDECLARE_MLL(MLL_COMMON);\nint use(int);\nint use(int a)\n{\n' \
           '    log_err("plain\\n");\n    log_dbg("%d\\n", a);\n    log_stats("%s\\n", "s");\n    ASSERT(a != 0);\n' \
           '    if (a < 0) {\n        log_panic("%d\\n", a);\n    }\n    return a;\n}\n'
    texts = {header.stem: '#include "%s"\n' % header.name * 2 for header in sorted(pathlib.Path(include).glob("*.h"))}
    texts["uses"] = uses
    commands = []
    for stem, text in texts.items():
        for suffix in ("c", "cpp"):
            (place / (stem + "." + suffix)).write_text(text, encoding="utf-8")
    for c, c_plus in dict.fromkeys(compilers):
        for compiler, standard, suffix in ((c, "c11", "c"), (c_plus, "c++17", "cpp"), (c_plus, "c++20", "cpp"),
                                           (c_plus, "c++2b", "cpp")):
            commands.append([compiler, "-std=" + standard, "-pedantic", "-Wall", "-Wextra", "-Werror", "-fsyntax-only",
                             "-I" + include] + [place / (stem + "." + suffix) for stem in texts])
    for command in commands:
        run(command)
    defined = re.compile(r"^\s*#\s*define\s+_\w*(?:SOURCE|EXTENSIONS)\b", re.M)
    for header in pathlib.Path(include).glob("*.h"):
        if defined.search(header.read_text(encoding="utf-8")):
            sys.exit("%s defines a feature macro" % header.name)
    print("%d texts, %d compilers and standards" % (len(texts), len(commands)))


os.environ["LC_ALL"] = "C"
with tempfile.TemporaryDirectory() as directory:
    {"flags": flags, "flags_traps": flags_traps, "chomp_alone": chomp_alone, "glib": glib, "libite": libite,
     "plain_c": plain_c, "strict_headers": strict_headers}[case](pathlib.Path(directory))
