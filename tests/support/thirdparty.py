#!/usr/bin/env python3
"""Third-party servers for the tests: nginx as a TLS-terminating reverse proxy and tinyproxy as a
forward proxy, each on an ephemeral loopback port, with its files in a folder the caller owns.

From Python:

    with thirdparty.nginx(upstream="127.0.0.1:8080", workdir=d, http2=True,
                          keepalive_timeout="50ms") as server:
        server.url, server.port, server.ca_file
    with thirdparty.forward_proxy(workdir=d) as proxy:
        proxy.url, proxy.port

From other languages (the C++ tests): `thirdparty.py nginx --upstream HOST:PORT --dir DIR
[--http2] [--keepalive-timeout 50ms]` or `thirdparty.py proxy --dir DIR` prints one JSON line
({"port", "url", "ca_file"}) once the server accepts connections, and stops the server when its
standard input reaches end of file or it receives SIGTERM. When the program is not installed the
line is {"unavailable": why} and the exit status 77; when it does not start, {"failure": why}.

nginx always terminates TLS with a certificate for 127.0.0.1 and localhost signed by a CA made
here (ca.pem in the folder). Request bodies are streamed to the upstream unbuffered, so an
upstream that answers early is seen as such by the client.
"""
import argparse
import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time


class Unavailable(Exception):
    """The server program is not installed."""


class Server:
    def __init__(self, process, port, url, ca_file=None):
        self.process = process
        self.port = port
        self.url = url
        self.ca_file = ca_file

    def describe(self):
        return {"port": self.port, "url": self.url, "ca_file": self.ca_file}


START_TIMEOUT = 10.0
START_ATTEMPTS = 5


def _program(name, *candidates):
    for path in (shutil.which(name), *candidates):
        if path and os.access(path, os.X_OK):
            return path
    raise Unavailable(f"{name} is not installed (scripts/install-deps installs it)")


def _free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _wait_until_accepting(process, port, log_file):
    deadline = time.monotonic() + START_TIMEOUT
    while time.monotonic() < deadline:
        if process.poll() is not None:
            return False
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return True
        except OSError:
            time.sleep(0.02)
    raise RuntimeError(f"server on port {port} did not start within {START_TIMEOUT} s; "
                       f"see {log_file}")


def _stop(process):
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def _start(command_for_port, log_file):
    """Starts a server on a free port, trying again when another process took the port first."""
    for _ in range(START_ATTEMPTS):
        port = _free_port()
        command = command_for_port(port)
        with open(log_file, "ab") as log:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                       start_new_session=True)
        if _wait_until_accepting(process, port, log_file):
            return process, port
        _stop(process)
    with open(log_file, errors="replace") as log:
        tail = log.read()[-2000:]
    raise RuntimeError(f"{command[0]} did not start: {tail}")


def make_certificates(workdir):
    """A CA and a server certificate for 127.0.0.1 and localhost; returns (ca, cert, key)."""
    ca_key, ca = os.path.join(workdir, "ca.key"), os.path.join(workdir, "ca.pem")
    key, csr = os.path.join(workdir, "server.key"), os.path.join(workdir, "server.csr")
    cert, ext = os.path.join(workdir, "server.pem"), os.path.join(workdir, "server.ext")
    if os.path.exists(cert):
        return ca, cert, key

    def run(*args):
        subprocess.run(["openssl", *args], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE)

    run("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", ca_key, "-out", ca,
        "-days", "2", "-subj", "/CN=Pellorin Test CA")
    run("req", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", csr,
        "-subj", "/CN=127.0.0.1")
    with open(ext, "w") as f:
        f.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n"
                "basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyEncipherment\n"
                "extendedKeyUsage=serverAuth\n")
    run("x509", "-req", "-in", csr, "-CA", ca, "-CAkey", ca_key, "-CAcreateserial",
        "-out", cert, "-days", "2", "-extfile", ext)
    return ca, cert, key


def _nginx_config(workdir, port, upstream, cert, key, http2, keepalive_timeout):
    temp = os.path.join(workdir, "nginx-temp")
    os.makedirs(temp, exist_ok=True)
    user = "user root root;\n" if os.geteuid() == 0 else ""
    paths = "".join(f"  {name}_temp_path {temp}/{name};\n"
                    for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    return f"""{user}worker_processes 1;
daemon off;
pid {workdir}/nginx.pid;
error_log {workdir}/nginx-error.log warn;
events {{ worker_connections 512; }}
http {{
  access_log {workdir}/nginx-access.log;
{paths}  client_max_body_size 0;
  keepalive_timeout {keepalive_timeout or "75s"};
  upstream receiver {{ server {upstream}; keepalive 16; }}
  server {{
    listen 127.0.0.1:{port} ssl{" http2" if http2 else ""};
    ssl_certificate {cert};
    ssl_certificate_key {key};
    location / {{
      proxy_pass http://receiver;
      proxy_http_version 1.1;
      proxy_set_header Connection "";
      proxy_request_buffering off;
      proxy_buffering off;
    }}
  }}
}}
"""


@contextlib.contextmanager
def nginx(upstream, workdir, http2=False, keepalive_timeout=None):
    """nginx terminating TLS on a free port and passing requests to `upstream` (HOST:PORT)."""
    program = _program("nginx", "/usr/sbin/nginx")
    os.makedirs(workdir, exist_ok=True)
    ca, cert, key = make_certificates(workdir)
    config = os.path.join(workdir, "nginx.conf")

    def command(port):
        with open(config, "w") as f:
            f.write(_nginx_config(workdir, port, upstream, cert, key, http2, keepalive_timeout))
        return [program, "-p", workdir, "-c", config]

    process, port = _start(command, os.path.join(workdir, "nginx-output.log"))
    try:
        yield Server(process, port, f"https://127.0.0.1:{port}", ca)
    finally:
        _stop(process)


@contextlib.contextmanager
def forward_proxy(workdir):
    """tinyproxy on a free port: plain http forwarded, https carried through CONNECT."""
    program = _program("tinyproxy", "/usr/sbin/tinyproxy")
    os.makedirs(workdir, exist_ok=True)
    config = os.path.join(workdir, "tinyproxy.conf")

    def command(port):
        with open(config, "w") as f:
            # No ConnectPort line: CONNECT is allowed to any port (the receiver's is ephemeral).
            f.write(f"Port {port}\nListen 127.0.0.1\nTimeout 60\nMaxClients 64\n"
                    f"Allow 127.0.0.1\nDisableViaHeader Yes\nLogLevel Info\n"
                    f'LogFile "{workdir}/tinyproxy.log"\n')
        return [program, "-d", "-c", config]

    process, port = _start(command, os.path.join(workdir, "tinyproxy-output.log"))
    try:
        yield Server(process, port, f"http://127.0.0.1:{port}")
    finally:
        _stop(process)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = parser.add_subparsers(dest="kind", required=True)
    n = sub.add_parser("nginx")
    n.add_argument("--upstream", required=True)
    n.add_argument("--dir", required=True)
    n.add_argument("--http2", action="store_true")
    n.add_argument("--keepalive-timeout")
    p = sub.add_parser("proxy")
    p.add_argument("--dir", required=True)
    args = parser.parse_args()

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    try:
        if args.kind == "nginx":
            server = nginx(args.upstream, args.dir, args.http2, args.keepalive_timeout)
        else:
            server = forward_proxy(args.dir)
        with server as running:
            print(json.dumps(running.describe()), flush=True)
            sys.stdin.read()  # until the caller closes our input or goes away
    except Unavailable as error:
        print(json.dumps({"unavailable": str(error)}), flush=True)
        sys.exit(77)
    except Exception as error:  # noqa: BLE001 - told to the caller, which fails the test
        print(json.dumps({"failure": f"{type(error).__name__}: {error}"}), flush=True)
        sys.exit(1)


if __name__ == "__main__":
    main()
