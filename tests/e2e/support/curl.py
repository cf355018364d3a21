"""The curl command, bounded in time and deaf to the caller's settings."""

import hashlib
import subprocess

SECONDS = 60
_COMMAND = ["curl", "--disable", "--silent", "--show-error", "--noproxy", "*", "--globoff",
            "--max-time", str(SECONDS)]


def curl(*arguments, expected_status=0):
    """Run curl and return its output."""
    done = subprocess.run([*_COMMAND, *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=SECONDS + 10)
    assert done.returncode == expected_status, done.stderr
    return done.stdout


def curl_digest(*arguments):
    """Run curl and return the length and the digest of its output, which is not kept."""
    running, length = hashlib.sha256(), 0
    with subprocess.Popen([*_COMMAND, *map(str, arguments)], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE) as process:
        while block := process.stdout.read(1 << 20):
            running.update(block)
            length += len(block)
    assert process.returncode == 0
    return length, running.hexdigest()


def url(port, path="/", scheme="http"):
    return f"{scheme}://127.0.0.1:{port}{path}"


def version():
    """The agent that curl names in its requests."""
    return "curl/" + subprocess.check_output(["curl", "--version"]).split()[1].decode()
