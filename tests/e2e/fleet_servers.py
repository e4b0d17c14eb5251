# SPDX-License-Identifier: MIT

"""Two real ClickHouse servers on free ports of the loopback interface, as two shards of a cluster.

Usage: fleet_servers.py COMMAND ARGUMENTS…

Runs the command with the address of the first server in RUNEFLOW_TEST_SERVER and ends the servers
with it.
"""

import contextlib
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

from run import free_port, running, wait_until

CLUSTER = "two"
PROGRAM = "/usr/sbin/clickhouse-server"
PASSWORD = "s3cret?&'x"  # of the user `writer`

CONFIGURATION = """<yandex>
<logger><level>warning</level><log>{folder}/log</log><errorlog>{folder}/errors</errorlog></logger>
<listen_host>127.0.0.1</listen_host>
<http_port>{http}</http_port><tcp_port>{tcp}</tcp_port><https_port>{https}</https_port>
<openSSL><server><certificateFile>{folder}/cert.pem</certificateFile>
<privateKeyFile>{folder}/key.pem</privateKeyFile>
<verificationMode>none</verificationMode><loadDefaultCAFile>false</loadDefaultCAFile></server></openSSL>
<path>{folder}/data/</path><tmp_path>{folder}/tmp/</tmp_path>
<users_config>{folder}/users.xml</users_config>
<default_profile>default</default_profile><default_database>default</default_database>
<mark_cache_size>67108864</mark_cache_size>
<remote_servers><{cluster}>{shards}</{cluster}></remote_servers>
</yandex>
"""

SHARD = """<shard><internal_replication>true</internal_replication>
<replica><host>127.0.0.1</host><port>{}</port></replica></shard>"""

USERS = """<yandex>
<profiles><default><max_memory_usage>2000000000</max_memory_usage></default></profiles>
<users>
<default><password></password><networks><ip>127.0.0.1</ip></networks>
<profile>default</profile><quota>default</quota></default>
<writer><password>{}</password><networks><ip>127.0.0.1</ip></networks>
<profile>default</profile><quota>default</quota></writer>
</users>
<quotas><default/></quotas></yandex>
"""


class Server:
    """A server with a folder of its own. start() may be called again after kill()."""

    def __init__(self, folder, http, https, tcp, all_tcp):
        self.folder = folder
        self.http = http
        self.url = f"http://127.0.0.1:{http}"
        self.secure_url = f"https://127.0.0.1:{https}"
        self.certificate = folder / "cert.pem"  # signed by itself
        self.process = None
        self.stack = contextlib.ExitStack()
        folder.mkdir()
        shards = "".join(SHARD.format(port) for port in all_tcp)
        (folder / "config.xml").write_text(
            CONFIGURATION.format(
                folder=folder, http=http, https=https, tcp=tcp, cluster=CLUSTER, shards=shards
            )
        )
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=runeflow"]
            + ["-addext", "subjectAltName=IP:127.0.0.1", "-keyout", folder / "key.pem", "-out", self.certificate],
            check=True,
            capture_output=True,
        )
        escaped = PASSWORD.replace("&", "&amp;")
        (folder / "users.xml").write_text(USERS.format(escaped))

    def start(self):
        with open(self.folder / "out", "a") as out:
            self.process = self.stack.enter_context(
                running([PROGRAM, f"--config-file={self.folder}/config.xml"], stdout=out, stderr=out)
            )
        wait_until("the ClickHouse server answers", self.is_up)

    def is_up(self):
        if self.process.poll() is not None:
            raise OSError((self.folder / "out").read_text()[-2000:])
        try:
            return self.ask("SELECT 1") == "1\n"
        except OSError:  # URLError is one
            return False

    def kill(self):
        self.process.kill()
        self.process.wait()

    def ask(self, statement):
        request = urllib.request.Request(self.url, data=statement.encode())
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return answer.read().decode()
        except urllib.error.HTTPError as error:
            raise OSError(error.read().decode()) from error


@contextlib.contextmanager
def two_servers(folder):
    ports = [free_port() for _ in range(6)]
    servers = [
        Server(folder / f"clickhouse{i}", ports[i], ports[2 + i], ports[4 + i], ports[4:])
        for i in (0, 1)
    ]
    with contextlib.ExitStack() as stack:
        for server in servers:
            stack.push(server.stack)
            server.start()
        yield servers


def main():
    with tempfile.TemporaryDirectory() as name:
        with two_servers(pathlib.Path(name)) as servers:
            environment = os.environ | {"RUNEFLOW_TEST_SERVER": servers[0].url}
            return subprocess.run(sys.argv[1:], env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
