"""Calls of clickhouse-client, and the options that say which server it asks."""

import re
import subprocess

# A query that the client itself waits for longer than this has lost its server.
TIMEOUT_SECONDS = 900


class ServerError(Exception):
    """What the client or the server said, in one line; `code` is the server's number, or 0."""

    def __init__(self, text):
        found = re.search(r"Code: (\d+)", text)
        self.code = int(found[1]) if found else 0
        self.text = " ".join(text.replace(
            "Received exception from server", "the server refuses").split())
        super().__init__(self.text or "clickhouse-client failed without a word")


def add_options(parser):
    """Options of every program here. Passwords stand in the client's file, never in a call."""
    parser.add_argument("--client", metavar="FILE",
                        help="configuration file of clickhouse-client: host, port, user, password")
    parser.add_argument("--host", help="the server to ask, one of the shards")
    parser.add_argument("--port", type=int, help="its port for the native protocol")


class Client:
    """Runs statements on one server."""

    def __init__(self, options):
        self.command = ["clickhouse-client"]
        if options.client:
            self.command.append(f"--config-file={options.client}")
        if options.host:
            self.command.append(f"--host={options.host}")
        if options.port:
            self.command.append(f"--port={options.port}")

    def run(self, statement, source=subprocess.DEVNULL, **settings):
        """Returns what the statement prints, as bytes; with several, parted by semicolons, what all
        print. source: an open file with rows to insert. Raises ServerError."""
        command = self.command + ["--multiquery"] * (source == subprocess.DEVNULL)
        command += [f"--{name}={value}" for name, value in settings.items()]
        try:
            done = subprocess.run(command + ["--query", statement], stdin=source,
                                  capture_output=True, timeout=TIMEOUT_SECONDS, check=False)
        except FileNotFoundError:
            raise ServerError("clickhouse-client is not installed") from None
        except subprocess.TimeoutExpired:
            raise ServerError(f"no answer within {TIMEOUT_SECONDS} seconds") from None
        if done.returncode != 0:
            raise ServerError(done.stderr.decode("utf-8", "replace"))
        return done.stdout
