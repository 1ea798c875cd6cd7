"""What `cmake --install` puts down: programs that run from there, and a library that programs of
others are built with."""

import os
import re
import shutil
import subprocess

import pytest

from lab import BUILD, run
from pathlib import Path
from tarnflow import OPTIONS_TEMPLATES, edge
from wire import Capture, tshark

ROOT = Path(__file__).resolve().parent.parent.parent
EXAMPLE = ROOT / "examples" / "minimal_agent.cpp"
CONSUMER = """
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES CXX)
find_package(tarnflow 0.1 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE tarnflow::linux)
"""


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """An installation, moved after it was made: nothing in it may know where it was put."""
    made = tmp_path_factory.mktemp("installed") / "made"
    run("cmake", "--install", BUILD, "--prefix", made)
    return Path(shutil.move(made, made.with_name("moved")))


def test_programs_run_from_there(lab, prefix):
    libraries = run("ldd", prefix / "sbin" / "tarnflowd")
    assert re.search(rf"libtarnipfix\.so\.\d+ => {prefix}/", libraries), libraries
    assert run(prefix / "bin" / "tarnflow", "--version").strip()
    file = lab.path("installed.toml")
    file.write_text(edge({"a": "10.99.0.2"}))
    assert "up0" in run(prefix / "bin" / "tarnflow", "check", file), "by the agent beside it"


def test_service_names_its_prefix_and_keeps_what_was_edited(tmp_path):
    run("cmake", "--install", BUILD, "--prefix", tmp_path)
    config_file = tmp_path / "etc" / "tarnflow" / "tarnflow.toml"
    unit = (tmp_path / "lib" / "systemd" / "system" / "tarnflowd.service").read_text()
    program, file = re.search(r"^ExecStart=(\S+) --config (\S+)$", unit, re.M).groups()
    assert file == str(config_file)
    run(program, "--check", file)
    config_file.write_text("# mine\n")
    run("cmake", "--install", BUILD, "--prefix", tmp_path)
    assert config_file.read_text() == "# mine\n"


def cmake_consumer(prefix, where):
    (where / "CMakeLists.txt").write_text(CONSUMER)
    shutil.copy(EXAMPLE, where / "main.cpp")
    run("cmake", "-S", where, "-B", where / "build", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", where / "build")
    return where / "build" / "consumer"


def pkg_config_consumer(prefix, where):
    env = {**os.environ, "PKG_CONFIG_PATH": str(prefix / "lib" / "pkgconfig")}
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "tarnlinux"], env=env, check=True,
                           stdout=subprocess.PIPE, text=True).stdout.split()
    # The tree itself must not be what makes it compile.
    run("g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", EXAMPLE, *flags,
        f"-Wl,-rpath,{prefix}/lib", "-o", where / "consumer")
    return where / "consumer"


@pytest.mark.parametrize("build", [cmake_consumer, pkg_config_consumer])
def test_example_is_built_against_it_and_exports(lab, far, prefix, tmp_path, build):
    """The program of the documentation, as somebody outside of this tree builds it."""
    assert len(EXAMPLE.read_text().splitlines()) < 100, "as is promised"
    program = build(prefix, tmp_path)
    assert f"{prefix}/lib" in run("ldd", program)
    capture = Capture(lab, "dn0", ns=far)
    agent = lab.start("consumer", program, "10.99.0.1", "10.99.0.2")
    capture.wait_until("the table of interfaces arrives", lambda messages: any(
        65281 in m.sets for m in messages))
    assert agent.stop() == 0
    packets = tshark(capture.file)
    templates = {t.id: t.fields for p in packets for t in p.templates}
    assert templates.pop(300) == ((8, 4, 0), (12, 4, 0), (1, 8, 0), (2, 8, 0))
    assert templates.keys() == OPTIONS_TEMPLATES.keys()
    names = {v["cflow.if_name"] for p in packets for i, v in p.records if i == 65281}
    assert {"lo", "up0"} <= names, names


def test_library_needs_only_the_runtime(prefix):
    library = prefix / "lib" / "libtarnipfix.so.0"
    assert "SONAME               libtarnipfix.so.0" in run("objdump", "-p", library)
    names = {re.split(r"[\s(]", line.strip())[0].rsplit("/", 1)[-1]
             for line in run("ldd", library).splitlines()}
    allowed = r"(linux-vdso|libstdc\+\+|libm|libgcc_s|libc|ld-linux-x86-64|ld-linux-aarch64)\.so\.\d+"
    assert names and all(re.fullmatch(allowed, n) for n in names), names
