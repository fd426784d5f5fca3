"""Writes the man page and the bash completion of ovra-kb from the command's own help.

    python3 make_docs.py OVRA_KB man OUTPUT.1.gz
    python3 make_docs.py OVRA_KB completion OUTPUT

The commands, their synopses and the options come from `ovra-kb --help` and `ovra-kb help COMMAND`, so the
two stay what the command says of itself.
"""

import gzip
import re
import subprocess
import sys


def run(cli, *args):
    return subprocess.run([cli] + list(args), check=True, stdout=subprocess.PIPE,
                          universal_newlines=True).stdout


def commands(help_text):
    """(name, synopsis) of every command listed under "Commands:"."""
    found = []
    section = help_text.split("Commands:\n", 1)[1].split("\n\n", 1)[0]
    for line in section.splitlines():
        synopsis = line.strip()[len("ovra-kb "):]
        name = synopsis.split()[0]
        if name != "help":
            found.append((name, synopsis))
    return found


def options(text):
    return sorted(set(re.findall(r"(?<![\w-])(--[a-z][a-z-]*|-[a-zA-Z])\b", text)))


def roff(text):
    lines = []
    for line in text.rstrip("\n").splitlines():
        line = line.replace("\\", "\\e")
        lines.append("\\&" + line if line.startswith((".", "'")) else line)
    return "\n".join(lines)


def man_page(cli):
    overview = run(cli, "--help")
    version = run(cli, "--version").split()[1]
    summary = overview.splitlines()[0].split(": ", 1)[1].rstrip(".")
    out = [".TH OVRA-KB 1 \"\" \"ovra-kb %s\" \"User Commands\"" % version,
           ".SH NAME", "ovra-kb \\- %s" % roff(summary),
           ".SH SYNOPSIS", ".nf"]
    out += [roff("ovra-kb " + synopsis) for _name, synopsis in commands(overview)]
    out += ["ovra-kb help COMMAND", ".fi", ".SH DESCRIPTION", ".nf", roff(overview.split("\n\n", 1)[1]), ".fi",
            ".SH COMMANDS"]
    for name, _synopsis in commands(overview):
        details = run(cli, "help", name).split("Common options:", 1)[0]
        out += [".SS %s" % name, ".nf", roff(details), ".fi"]
    out += [".SH SEE ALSO", "The manual (ovra-kb.md), README.md and the user guide in /usr/share/doc/ovra-kb."]
    return "\n".join(out) + "\n"


def completion(cli):
    overview = run(cli, "--help")
    names = [name for name, _synopsis in commands(overview)]
    cases = []
    for name in names:
        words = options(run(cli, "help", name))
        cases.append("        %s) opts=\"%s\" ;;" % (name, " ".join(words)))
    return """# bash completion of ovra-kb, written from its help by tools/make_docs.py
_ovra_kb() {
    local cur prev command word opts
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case "$word" in %(pattern)s) command="$word"; break ;; esac
    done
    case "$prev" in
        --bank) COMPREPLY=($(compgen -d -- "$cur")); return ;;
        --type) COMPREPLY=($(compgen -W "exact prefix all" -- "$cur")); return ;;
        --soc | --cores | --op-type) return ;;
    esac
    if [ -z "$command" ]; then
        COMPREPLY=($(compgen -W "%(commands)s help --help --version" -- "$cur"))
        return
    fi
    case "$command" in
%(cases)s
    esac
    if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$opts" -- "$cur"))
    elif [ "$command" = import ] || [ "$command" = export ]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    elif [ "$command" = backup ]; then
        COMPREPLY=($(compgen -d -- "$cur"))
    fi
}
complete -F _ovra_kb ovra-kb
""" % {"pattern": " | ".join(names), "commands": " ".join(names), "cases": "\n".join(cases)}


def main():
    cli, kind, output = sys.argv[1:4]
    if kind == "man":
        with open(output, "wb") as raw, gzip.GzipFile(fileobj=raw, mode="wb", mtime=0, filename="") as page:
            page.write(man_page(cli).encode("utf-8"))
    else:
        with open(output, "w") as script:
            script.write(completion(cli))


if __name__ == "__main__":
    main()
