"""Shards of the real server in a directory of their own: on loopback, on free ports, stopped by
process id."""

import hashlib
import os
import re
import shutil
import signal
import socket
import subprocess
import time

FLEET = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PASSWORDS = {"reader": "read me", "loader": "load me"}
# Debian has it where only root's search path looks.
SERVER = shutil.which("clickhouse-server", path=f"{os.environ.get('PATH', '')}:/usr/sbin")
START_SECONDS = 30
MARK_CACHE_BYTES = 64 << 20
PORT_ATTEMPTS = 3
# Of the server's allocator: freed memory returns to the system sooner, for some of the inserts' time.
ALLOCATOR = "narenas:2,dirty_decay_ms:500"

CONFIG = """<yandex>
  <logger><level>warning</level><log>{home}/server.log</log>
    <errorlog>{home}/error.log</errorlog></logger>
  <listen_host>127.0.0.1</listen_host>
  <tcp_port>{tcp}</tcp_port><http_port>{http}</http_port>
  <interserver_http_port>{interserver}</interserver_http_port>
  <path>{home}/data/</path><tmp_path>{home}/tmp/</tmp_path>
  <user_files_path>{home}/files/</user_files_path>
  <format_schema_path>{home}/schemas/</format_schema_path>
  <mark_cache_size>{marks}</mark_cache_size>
  <users_config>users.xml</users_config>
  <default_profile>default</default_profile><default_database>default</default_database>
</yandex>
"""
USERS = """<yandex>
  <profiles><default/></profiles><quotas><default/></quotas>
  <users><default><password/><networks><ip>127.0.0.1</ip></networks>
    <profile>default</profile><quota>default</quota></default></users>
</yandex>
"""
CLIENT = """<config><host>127.0.0.1</host><port>{port}</port>
  <user>fleet_{role}</user><password>{password}</password></config>
"""


def free_ports(count):
    """Ports that nobody listens on now. Another program may still be faster than the server."""
    sockets = [socket.socket() for _ in range(count)]
    try:
        for one in sockets:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in sockets]
    finally:
        for one in sockets:
            one.close()


def end_in_order():
    """Makes the first request to end the process a KeyboardInterrupt, which no test catches, so that
    what was started is stopped and what was written is removed. Further requests are ignored."""
    requests = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT)

    def end(*_):
        for request in requests:
            signal.signal(request, signal.SIG_IGN)
        raise KeyboardInterrupt

    for request in requests:
        signal.signal(request, end)


def _write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


class Shard:
    """One server and its directory."""

    def __init__(self, home):
        self.home = home
        self.port = None
        self.process = None

    def configure(self, ports, cluster):
        """Writes the configuration as docs/fleet.md tells to install it."""
        self.port = ports[0]
        for directory in ("config.d", "users.d"):
            os.makedirs(f"{self.home}/{directory}", exist_ok=True)
        _write(f"{self.home}/config.xml", CONFIG.format(
            home=self.home, tcp=ports[0], http=ports[1], interserver=ports[2],
            marks=MARK_CACHE_BYTES))
        _write(f"{self.home}/users.xml", USERS)
        _write(f"{self.home}/config.d/cluster.xml", cluster)
        shutil.copy(f"{FLEET}/server/settings.xml", f"{self.home}/config.d/fleet.xml")
        shutil.copy(f"{FLEET}/server/users.xml", f"{self.home}/users.d/fleet.xml")

    def start(self):
        """Returns once the server answers; raises RuntimeError, with the reason, if it does not."""
        environment = dict(os.environ, MALLOC_CONF=ALLOCATOR)
        for role, password in PASSWORDS.items():
            environment[f"FLEET_{role.upper()}_PASSWORD"] = password
            environment[f"FLEET_{role.upper()}_SHA256"] = hashlib.sha256(
                password.encode()).hexdigest()
        with open(f"{self.home}/console.log", "ab") as console:
            # A session of its own: ^C is for the one who started it, who then stops it in order.
            # One who is killed cannot, and takes it along.
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig=KILL", SERVER, f"--config-file={self.home}/config.xml"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console, cwd=self.home,
                env=environment, start_new_session=True)
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline and self.process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        self.kill()
        raise RuntimeError(f"a server did not start: {self.last_error()}")

    def last_error(self):
        """What the server's error log says last."""
        try:
            with open(f"{self.home}/error.log", encoding="utf-8", errors="replace") as log:
                lines = [line.strip() for line in log if "<Error>" in line]
        except OSError:
            lines = []
        return lines[-1] if lines else "its error log is empty"

    def kill(self):
        """Ends the server at once, as a power cut would."""
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None

    def peak_memory(self):
        """The most memory that the running server had, in bytes."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1]) * 1024

    def sql(self, statements):
        """Runs statements as the administrator; returns what they print."""
        done = subprocess.run(
            ["clickhouse-client", "--host=127.0.0.1", f"--port={self.port}", "--multiquery"],
            input=statements, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"the server refuses: {done.stderr.strip()}")
        return done.stdout


class Shards:
    """A fleet's store: `with Shards(directory) as shards:` starts it and stops it."""

    def __init__(self, directory, count=2):
        self.directory = os.path.abspath(directory)
        self.shards = [Shard(f"{self.directory}/shard{number + 1}") for number in range(count)]

    def __enter__(self):
        try:
            for attempt in range(PORT_ATTEMPTS):
                try:
                    self._configure_and_start()
                    break
                except RuntimeError:
                    self.stop()
                    if attempt + 1 == PORT_ATTEMPTS:
                        raise
            with open(f"{FLEET}/schema.sql", encoding="utf-8") as file:
                schema = file.read()
            for shard in self.shards:
                shard.sql(schema)
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    def __getitem__(self, number):
        return self.shards[number]

    def __iter__(self):
        return iter(self.shards)

    def _configure_and_start(self):
        free = iter(free_ports(3 * len(self.shards)))
        ports = list(zip(free, free, free))
        with open(f"{FLEET}/server/cluster.xml", encoding="utf-8") as file:
            cluster = file.read()
        for number, (tcp, _, _) in enumerate(ports, 1):
            cluster = cluster.replace(f"<host>shard{number}.example</host><port>9000</port>",
                                      f"<host>127.0.0.1</host><port>{tcp}</port>")
        for shard, own in zip(self.shards, ports):
            shard.configure(own, cluster)
            shard.start()
        for role, password in PASSWORDS.items():
            _write(self.client(role), CLIENT.format(
                port=self.shards[0].port, role=role, password=password))
            os.chmod(self.client(role), 0o600)

    def client(self, role):
        """The client's configuration file of a user, `reader` or `loader`."""
        return f"{self.directory}/{role}.xml"

    def stop(self):
        """Stops every server, at once: its directory goes with it."""
        for shard in self.shards:
            shard.kill()
