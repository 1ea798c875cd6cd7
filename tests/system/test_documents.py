"""What people read and type: the README's commands, the manual pages, the completions."""

import os
import pathlib
import re
import subprocess
import textwrap

import pytest

from lab import BUILD, run
from tarnflow import AGENT, TOOL

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
MADE = pathlib.Path(BUILD) / "packaging"


def test_readme_tour(tmp_path):
    """The tour as it stands there, in a shell like a reader's."""
    section = (ROOT / "README.md").read_text().split("## From the source tree\n", 1)[1]
    tour = textwrap.dedent(re.findall(r"(?:^    .*\n)+", section, re.M)[1])
    assert "tarnflowd --config" in tour
    (tmp_path / "build").symlink_to(BUILD)
    done = subprocess.run(["bash", "-m", "-e", "-c", tour + "\nwait"], cwd=tmp_path, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
    assert done.returncode == 0, done.stdout
    for what in ("options template 65281", r"packetsSeen +[1-9]", "127.0.0.1:4739",
                 "reloaded my.toml", "FLOWTRACKING_EXPORTER_INACTIVE"):
        assert re.search(what, done.stdout), (what, done.stdout)
    section = (ROOT / "README.md").read_text().split("## A first look\n", 1)[1]
    look = re.search(r"(?:^    .*\n)+", section, re.M)[0].replace("make build", "")
    done = subprocess.run(["bash", "-e", "-c", look.replace("&\n", "&\n sleep 1\n") + "\nkill $!; wait"],
                          cwd=tmp_path, text=True, stdout=subprocess.PIPE, timeout=60)
    assert done.stdout.startswith("tracker here: the heaviest flows by octets, of"), done


def commands(program, *path):
    """(words, options, subcommands) of every command of a program, from its own help."""
    said = run(program, *path, "--help")
    subcommands = re.findall(r"^  ([\w-]+)", said.partition("\nSubcommands:\n")[2].partition(
        "\n\n")[0], re.M)
    yield path, re.findall(r"^  (?:-\w,)?(--[\w-]+)", said, re.M), subcommands
    for name in subcommands:
        yield from commands(program, *path, name)


def manual(page):
    text = re.sub(".\b", "", run("man", "-l", "-Tutf8", MADE / "man" / f"{page}.gz"))  # bold by overstriking
    return re.sub(r"\x1b\[[\d;]*m", "", text).replace("‐", "-").replace("−", "-")


def test_manual_pages_leave_nothing_out(monkeypatch):
    monkeypatch.setenv("MANWIDTH", "400")  # no word is broken
    pages = {p: manual(p) for p in ("tarnflow.1", "tarnflowd.8", "tarnflow.toml.5")}
    for page, program in (("tarnflow.1", TOOL), ("tarnflowd.8", AGENT)):
        for path, options, _ in commands(program):
            assert " ".join(("tarnflow", *path)) in pages[page], (page, path)
            for option in {*options} - {"--help", "--version"}:
                assert re.search(rf"{option}\b", pages[page]), (page, path, option)
    keys = set(re.findall(r"^(?:# )?([a-z-]+) *= ", run(AGENT, "--print-default-config"), re.M))
    assert len(keys) >= 17, keys
    for key in keys:
        assert re.search(rf"^ +{key}\b", pages["tarnflow.toml.5"], re.M), key


def complete(line, cwd):
    """What bash offers at the end of a line."""
    words = line.split(" ")
    done = subprocess.run(
        ["bash", "-c", 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_$1"; '
         'printf "%s\\n" "${COMPREPLY[@]}"', "bash", MADE / "completions" / "bash" / words[0], *words],
        cwd=cwd, text=True, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert not done.stderr, done.stderr
    return {w for w in done.stdout.split("\n") if w}


def test_completions(tmp_path):
    for program in (TOOL, AGENT):
        name = os.path.basename(program)
        for path, options, subcommands in commands(program):
            line = " ".join((name, *path))
            offered = complete(line + " --", tmp_path)
            assert offered == set(options), line
            assert set(subcommands) <= complete(line + " ", tmp_path), line
            for begun in {name[:2] for name in subcommands}:
                assert complete(f"{line} {begun}", tmp_path) == {
                    name for name in subcommands if name.startswith(begun)}
    (tmp_path / "my file.toml").touch()
    assert complete("tarnflow check my", tmp_path) == {"my file.toml"}
    assert complete("tarnflowd --config my", tmp_path) == {"my file.toml"}
    assert complete("tarnflow show counters --watch ", tmp_path) == set()
    for shell, file in (("zsh", "_tarnflow"), ("fish", "tarnflow.fish")):
        run(shell, "-n", MADE / "completions" / shell / file)


@pytest.mark.parametrize("document", ["README.md", *(f"docs/{p.name}" for p in (
    ROOT / "docs").glob("*.md"))])
def test_links_lead_somewhere(document):
    at = ROOT / document
    for target in re.findall(r"\]\(([^)#]+?)(?:#[^)]*)?\)", at.read_text()):
        assert "://" in target or (at.parent / target).exists(), target
