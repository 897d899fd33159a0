"""nginx with its RTMP module on 127.0.0.1, recording every publish to an FLV file named
after the stream key. A child of this process, in a private folder (see ObsSession)."""

import glob
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

MODULE_DIRS = ("/usr/lib/nginx/modules", "/usr/share/nginx/modules", "/usr/lib64/nginx/modules")


class RtmpServerError(RuntimeError):
    pass


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class RtmpServer:
    def __init__(self, root=None, keep=False):
        self.root = Path(root or tempfile.mkdtemp(prefix="cv-nginx-"))
        self.keep = keep
        self.port = _free_port()
        self.proc = None

    @property
    def app_url(self):
        return f"rtmp://127.0.0.1:{self.port}/live"

    @property
    def recordings_dir(self):
        return self.root / "recordings"

    def start(self, timeout=15):
        nginx = shutil.which("nginx") or "/usr/sbin/nginx"
        if not os.path.exists(nginx):
            raise RtmpServerError("nginx not found (Debian package nginx)")
        module = next((path for d in MODULE_DIRS for path in glob.glob(f"{d}/ngx_rtmp_module.so")), None)
        self.recordings_dir.mkdir(parents=True, exist_ok=True)
        conf = self.root / "nginx.conf"
        conf.write_text("\n".join([
            "daemon off;", "master_process off;", "worker_processes 1;",
            f'pid "{self.root}/nginx.pid";', f'error_log "{self.root}/error.log" info;',
            f'load_module "{module}";' if module else "",
            "events { worker_connections 256; }",
            "rtmp {",
            f'  access_log "{self.root}/rtmp-access.log";',
            "  server {",
            f"    listen 127.0.0.1:{self.port};",
            "    application live {",
            "      live on; record all; record_unique on;",
            f'      record_path "{self.recordings_dir}";',
            "    }",
            "  }",
            "}", ""]))
        self.proc = subprocess.Popen([nginx, "-p", f"{self.root}/", "-e", f"{self.root}/error.log", "-c", str(conf)],
                                     stdout=subprocess.DEVNULL, stderr=open(self.root / "nginx.out", "wb"))
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RtmpServerError("nginx ended before listening: " + (self.root / "nginx.out").read_text())
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=0.5):
                    return self
            except OSError:
                time.sleep(0.1)
        raise RtmpServerError(f"nginx did not listen on port {self.port}")

    def recordings(self, key):
        """The recordings of one stream key, oldest first."""
        return sorted(self.recordings_dir.glob(f"{key}-*.flv"), key=lambda p: p.stat().st_mtime)

    def access_log(self):
        path = self.root / "rtmp-access.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if not self.keep:
            shutil.rmtree(self.root, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()
