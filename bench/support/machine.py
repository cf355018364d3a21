"""What the machine has: packages, the build, processors, descriptors, and versions of everything."""

import datetime
import json
import os
import pathlib
import platform
import re
import resource
import subprocess

from support.failure import Failure
from support.processes import search_path

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = ("g++", "cmake", "ninja-build", "libssl3", "openssl", "nginx-light", "haproxy", "wrk", "libbenchmark-dev",
            "python3-matplotlib")
DESCRIPTORS = 19900
INSTALL = 'root=$1; source "$1/scripts/common.sh"; shift; install_missing "$@"'


def said_by(*command):
    """All that a program prints."""
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False,
                            env={**os.environ, "PATH": search_path()})
    if result.returncode:
        raise Failure(f"{command[0]} {command[1]} fails: {result.stdout.strip()}")
    return result.stdout


def install_missing():
    """Debian packages that are not there yet."""
    if subprocess.run(["bash", "-c", INSTALL, "bench/run", ROOT, *PACKAGES], check=False).returncode:
        raise Failure("not everything is installed")


def built():
    """The build folder; VINDRA_BUILD names one that is ready."""
    if ready := os.environ.get("VINDRA_BUILD"):
        build = pathlib.Path(ready).resolve()
    else:
        build = ROOT / "build/bench"
        for step in (["cmake", "--preset", "bench"], ["cmake", "--build", "--preset", "bench"]):
            result = subprocess.run(step, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                    check=False)
            if result.returncode:
                raise Failure(f"{' '.join(step)} fails:\n{result.stdout.strip()}")
    for program in ("vindra/vindra", "bench/floor", "bench/backend"):
        if not os.access(build / program, os.X_OK):
            raise Failure(f"there is no program at {build / program}")
    return build


def check_processors():
    """Two are needed: one for the server under test, one for all else."""
    if not {0, 1} <= os.sched_getaffinity(0):
        raise Failure("needs the processors 0 and 1")


def raise_descriptors():
    """A pair costs the server under test two of them."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < DESCRIPTORS:
        raise Failure(f"needs {DESCRIPTORS} descriptors, and the hard limit is {hard} (ulimit -Hn)")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(DESCRIPTORS, min(hard, 20000)), hard))


def peers(start=lambda program: [program]):
    """The releases of nginx and HAProxy, which `start` says how to call."""
    nginx = said_by(*start("nginx"), "-v").strip().rpartition("/")[2]
    haproxy = re.search(r"version (\S+)", said_by(*start("haproxy"), "-v")).group(1)
    return {"nginx": nginx, "haproxy": haproxy}


def described(build, start_newer=None):
    """Everything that a figure depends on."""
    cache = (build / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)
    flags = re.search(r"^CMAKE_CXX_FLAGS_RELEASE:\w+=(.*)$", cache, re.M).group(1)
    memory = int(re.search(r"^MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text(), re.M).group(1))
    model = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return {
        "date": datetime.date.today().isoformat(),
        "processor": model.group(1) if model else platform.machine(),
        "processors": os.cpu_count(),
        "memory_gib": round(memory / 2**20, 1),
        "kernel": platform.release(),
        "system": platform.freedesktop_os_release().get("PRETTY_NAME", ""),
        "compiler": said_by(compiler, "--version").splitlines()[0],
        "flags": flags,
        "vindra": said_by("git", "-c", "safe.directory=*", "-C", ROOT, "describe", "--always", "--dirty").strip(),
        **peers(),
        **({"newer": peers(start_newer)} if start_newer else {}),
        "wrk": re.search(r"wrk (\S+)", subprocess.run(["wrk", "-v"], stdout=subprocess.PIPE, text=True,
                                                      check=False).stdout).group(1),
        "openssl": said_by("openssl", "version").split()[1],
    }


def make_credentials(folder):
    """A key and a certificate of this run; returns both paths."""
    key, certificate = folder / "key.pem", folder / "certificate.pem"
    said_by("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
            "-keyout", key, "-out", certificate)
    return key, certificate


def micro(build, seconds):
    """The micro-benchmarks of bench/micro, on the processor of the servers; a list as they report it."""
    programs = sorted((build / "bench/micro").glob("*_bench"))
    if not programs:
        raise Failure(f"there are no micro-benchmarks in {build / 'bench/micro'}")
    found = []
    for program in programs:
        result = subprocess.run(["taskset", "-c", "0", program, "--benchmark_format=json",
                                 f"--benchmark_min_time={seconds}"],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if result.returncode:
            raise Failure(f"{program.name} fails: {result.stderr.strip()}")
        found += json.loads(result.stdout)["benchmarks"]
    return [{key: one[key] for key in ("name", "cpu_time", "time_unit", "bytes_per_second") if key in one}
            for one in found]
