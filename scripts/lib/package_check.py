"""The Debian package on a clean system of its host (see scripts/package --check).

A clean root of the host (`debootstrap --variant=minbase bookworm|sid` with only obs-studio
and a GL driver for it) is made once and cached; each check runs on a throwaway overlay of
it, in the mount namespace scripts/package gives this process, so the cached root stays as
it was made. On the overlay the check

  1. installs the package with apt, which must take its Depends from the archive without
     pulling in development packages or another obs;
  2. runs that root's own obs (as an unprivileged user, under a private Xvfb outside the
     root, with a fresh home) with the plug-in set to stream the vertical canvas to a local
     nginx RTMP server outside the root, and starts the stream through obs's websocket
     server as the demo does; the plug-in must log that it loaded, obs must have loaded it
     from the system plug-in folder, and what the server received must be a vertical
     stream that decodes;
  3. removes the package with `apt remove --purge` and compares the root's files with
     those before the install (apt's and dpkg's own records and logs aside).

Any failure ends it non-zero with the reasons. Everything it starts is its child and is
waited for; everything it mounts is unmounted."""

import argparse
import contextlib
import ctypes
import fcntl
import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import websocket  # Debian's python3-websocket

import media_probe
from demo import wait_live, streams_live
from obs_session import COLLECTION, LOG_TAG, PLUGIN, PROFILE, ObsError, ObsSession, known_host_crash
from rtmp_server import RtmpServer, RtmpServerError

PACKAGE = PLUGIN
# What a clean system of each host is.
HOSTS = {
    "native": {"suite": "bookworm", "name": "clean-bookworm", "obs": "29"},
    "modern": {"suite": "sid", "name": "clean-sid", "obs": "32"},
}
# What it holds besides obs-studio (installed without its Recommends): the GL driver obs
# needs to draw without a GPU, and libGL, which OBS 32's libobs-opengl opens at run time
# though Debian's libobs0t64 does not depend on it (a desktop system has them all).
RUNTIME = ["obs-studio", "libgl1-mesa-dri", "libegl-mesa0", "libglx-mesa0", "libgl1"]
# The unprivileged user obs runs as inside the root (nobody:nogroup in base-passwd).
USER = (65534, 65534)
# Left out of the before-and-after comparison: the kernel's and the check's own folders,
# and apt's and dpkg's records, caches and logs.
IGNORED = {"proc", "sys", "dev", "run", "tmp", "var/lib/dpkg", "var/lib/apt", "var/cache/apt",
           "var/cache/debconf", "var/log"}
APT_ENV = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
           "LANG": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive", "TERM": "dumb"}


class CheckError(RuntimeError):
    pass


def say(text):
    print(f"check: {text}", flush=True)


def run(cmd, check=True, capture=False, **kwargs):
    """A command run to its end (its output goes to ours unless captured)."""
    result = subprocess.run(cmd, text=True, capture_output=capture, **kwargs)
    if check and result.returncode != 0:
        detail = f":\n{(result.stdout or '')[-3000:]}{(result.stderr or '')[-3000:]}" if capture else ""
        raise CheckError(f"{' '.join(map(str, cmd))} failed with {result.returncode}{detail}")
    return result


def mounts_under(path):
    """Mount points at or below `path` in this namespace."""
    path = os.path.realpath(path).rstrip("/") + "/"
    found = []
    with open("/proc/self/mountinfo") as info:
        for line in info:
            point = line.split()[4].replace("\\040", " ")
            if (point.rstrip("/") + "/").startswith(path):
                found.append(point)
    return found


class Mounts:
    """Mounts made in this namespace, unmounted again in reverse order (as scripts/modern-host does)."""

    def __init__(self):
        self.points = []

    def mount(self, target, *args):
        target = Path(target)
        target.mkdir(parents=True, exist_ok=True)
        run(["mount", *args, str(target)])
        self.points.append(target)

    def chroot_mounts(self, root):
        """What a program run in the root needs: /proc, /sys and /dev."""
        self.mount(root / "proc", "-t", "proc", "proc")
        self.mount(root / "sys", "--rbind", "/sys")
        run(["mount", "--make-rslave", str(root / "sys")])
        self.mount(root / "dev", "--rbind", "/dev")
        run(["mount", "--make-rslave", str(root / "dev")])
        if not mounts_under(root / "dev" / "pts"):
            self.mount(root / "dev" / "pts", "--bind", "/dev/pts")
        with contextlib.suppress(OSError):
            shutil.copyfile("/etc/resolv.conf", root / "etc" / "resolv.conf", follow_symlinks=True)

    def unmount_all(self):
        while self.points:
            target = self.points.pop()
            if subprocess.run(["umount", "-R", str(target)], stderr=subprocess.DEVNULL).returncode != 0:
                subprocess.run(["umount", "-R", "-l", str(target)], stderr=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.unmount_all()


def in_root(root, *cmd, capture=False, check=True):
    return run(["chroot", str(root), "/usr/bin/env", "-i", *[f"{k}={v}" for k, v in APT_ENV.items()], *cmd],
               capture=capture, check=check)


def apt(root, *args, capture=False, check=True):
    return in_root(root, "apt-get", "-o", "Acquire::Retries=3", *args, capture=capture, check=check)


@contextlib.contextmanager
def locked(path, exclusive):
    """The cached root's lock: held shared while a check reads it, alone while it is made."""
    with open(path, "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX if exclusive else fcntl.LOCK_SH)
        try:
            yield
        finally:
            fcntl.flock(lock, fcntl.LOCK_UN)


class CleanRoot:
    """The cached clean root of one host."""

    def __init__(self, host):
        known = HOSTS[host]
        cache = Path(os.environ.get("CV_CLEAN_ROOTS") or
                     Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "corvane-vertical-canvas")
        self.suite = known["suite"]
        self.path = cache / known["name"]
        self.ready = self.path / ".cv-ready"
        self.lock = cache / f"{known['name']}.lock"
        self.mirror = os.environ.get("CV_MIRROR", "http://deb.debian.org/debian")
        self.security = os.environ.get("CV_SECURITY_MIRROR", "http://deb.debian.org/debian-security")
        repo = Path(__file__).resolve().parents[2]
        if str(self.path).startswith(str(repo) + "/"):
            raise CheckError("the clean roots must live outside the source tree (CV_CLEAN_ROOTS)")
        cache.mkdir(parents=True, exist_ok=True)

    def current(self):
        """Made, with the packages RUNTIME names now (the ready mark lists them)."""
        with contextlib.suppress(OSError):
            return self.ready.read_text().split() == RUNTIME
        return False

    def ensure(self, refresh=False):
        """Makes the root on first use, installs what RUNTIME names since, or updates it
        with refresh; the seconds it took (None when it was ready as it was)."""
        if self.current() and not refresh:
            return None
        with locked(self.lock, exclusive=True):
            started = time.monotonic()
            if not self.ready.exists():
                self._make()
            elif refresh or not self.current():
                say(f"updating {self.path}")
                with Mounts() as mounts:
                    mounts.chroot_mounts(self.path)
                    apt(self.path, "update")
                    if refresh:
                        apt(self.path, "-y", "upgrade")
                    apt(self.path, "install", "-y", "--no-install-recommends", *RUNTIME)
                    apt(self.path, "clean")
                self.ready.write_text(" ".join(RUNTIME) + "\n")
            return time.monotonic() - started

    def _make(self):
        new = self.path.with_name(self.path.name + ".new")
        if mounts_under(new):
            raise CheckError(f"something is mounted under {new}")
        say(f"creating a clean Debian {self.suite} root in {self.path} (once)")
        run(["rm", "-rf", "--one-file-system", str(new)])
        if not shutil.which("debootstrap"):
            raise CheckError("debootstrap is missing (scripts/setup installs it)")
        run(["debootstrap", "--variant=minbase", self.suite, str(new), self.mirror])
        # Package scripts start no services; the mirror's release files may be past their date.
        policy = new / "usr/sbin/policy-rc.d"
        policy.write_text("#!/bin/sh\nexit 101\n")
        policy.chmod(0o755)
        (new / "etc/apt/apt.conf.d/99corvane").write_text('Acquire::Check-Valid-Until "false";\n')
        if self.suite == "bookworm":
            # As an installed Debian 12 has them: its point and security updates.
            (new / "etc/apt/sources.list").write_text(
                f"deb {self.mirror} bookworm main\ndeb {self.mirror} bookworm-updates main\n"
                f"deb {self.security} bookworm-security main\n")
        with Mounts() as mounts:
            mounts.chroot_mounts(new)
            apt(new, "update")
            apt(new, "-y", "upgrade")
            apt(new, "install", "-y", "--no-install-recommends", *RUNTIME)
            apt(new, "clean")
        if mounts_under(new):
            raise CheckError(f"{new} is still mounted on")
        run(["rm", "-rf", "--one-file-system", str(self.path)])
        new.rename(self.path)
        self.ready.write_text(" ".join(RUNTIME) + "\n")


def snapshot(root):
    """Every path of the root (folders end in /, links in @), the ignored folders aside."""
    found = set()
    root = str(root)
    for folder, dirs, files in os.walk(root):
        rel = os.path.relpath(folder, root)
        rel = "" if rel == "." else rel + "/"
        dirs[:] = [d for d in dirs if rel + d not in IGNORED]
        for d in dirs:
            found.add(rel + d + ("@" if os.path.islink(os.path.join(folder, d)) else "/"))
        for f in files:
            found.add(rel + f + ("@" if os.path.islink(os.path.join(folder, f)) else ""))
    return found


class RootObsSession(ObsSession):
    """The demo's obs session with obs run from inside the root as an unprivileged user,
    the plug-in coming from the package rather than from a build folder."""

    def __init__(self, merged, **kwargs):
        self.merged = Path(merged)
        super().__init__(merged, root=self.merged / "tmp" / "cv-check" / "obs", **kwargs)

    def inside(self, path):
        """A path below the root as obs sees it."""
        return "/" + str(Path(path).relative_to(self.merged))

    def prepare(self):
        # The home without the per-user install: here the module comes from the system
        # folder the package fills.
        self.write_home()
        # obs runs as an unprivileged user, who owns its home.
        for folder, dirs, files in os.walk(self.root.parent):
            for name in [folder, *[os.path.join(folder, n) for n in dirs + files]]:
                os.lchown(name, *USER)
        return self

    def start(self, timeout=90):
        self._start_xvfb()
        self._stdout = open(self.stdout_path, "wb")
        env = {"HOME": self.inside(self.home), "XDG_CONFIG_HOME": self.inside(self.config),
               "DISPLAY": self.display, "QT_QPA_PLATFORM": "xcb", "LIBGL_ALWAYS_SOFTWARE": "1",
               "LANG": "C.UTF-8", "PATH": APT_ENV["PATH"]}
        # --verbose: the host logs the file of each module it loads.
        self.obs = subprocess.Popen(
            ["chroot", f"--userspec={USER[0]}:{USER[1]}", str(self.merged), "/usr/bin/env", "-i",
             f"--chdir={self.inside(self.home)}", *[f"{k}={v}" for k, v in env.items()],
             "obs", "--verbose", "--multi", "--disable-shutdown-check", "--profile", PROFILE,
             "--collection", COLLECTION],
            stdout=self._stdout, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, preexec_fn=allow_core_files)
        self._connect(timeout)
        return self

    def known_host_crash(self):
        """As for the e2e tests, with the root's own obs and libraries."""
        return known_host_crash(self.home, self.root, self.merged / "usr/bin/obs", sysroot=self.merged)

    def mapped_module(self):
        """Where the running obs mapped the plug-in's module from, as seen inside the root."""
        with contextlib.suppress(OSError):
            for line in Path(f"/proc/{self.obs.pid}/maps").read_text().splitlines():
                path = line.split(None, 5)[5] if len(line.split(None, 5)) == 6 else ""
                if path.endswith(f"/{PLUGIN}.so"):
                    merged = str(self.merged)
                    return path[len(merged):] if path.startswith(merged + "/") else path
        return None


def allow_core_files():
    """In obs's process before it starts: a crash leaves a core file in its home."""
    _, hard = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))


def simulate_install(root, deb):
    """What apt would do to install the package: (packages it would install besides it,
    packages it would remove), or a CheckError saying why it cannot."""
    out = apt(root, "install", "-s", deb, capture=True, check=False)
    if out.returncode != 0:
        raise CheckError("apt cannot install the package:\n" + (out.stdout + out.stderr)[-3000:])
    installs, removals = [], []
    for line in out.stdout.splitlines():
        match = re.match(r"^(Inst|Remv) (\S+)", line)
        if match and match.group(2) != PACKAGE:
            (installs if match.group(1) == "Inst" else removals).append(line[5:])
    return installs, removals


def leftover_processes(merged):
    """Processes whose root lies in the overlay (none should outlive the check)."""
    found = []
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            with contextlib.suppress(OSError):
                if os.readlink(entry / "root").startswith(str(merged)):
                    found.append(int(entry.name))
    return found


def reap():
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] > 0:
            pass


def check(args):
    deb = Path(args.deb).resolve()
    if not deb.is_file():
        raise CheckError(f"{deb} does not exist")
    fields = run(["dpkg-deb", "-f", str(deb), "Package", "Version", "Depends"], capture=True).stdout
    say(f"package {deb.name}:\n  " + fields.strip().replace("\n", "\n  "))

    clean = CleanRoot(args.host)
    made = clean.ensure(refresh=args.refresh)
    if made is not None:
        say(f"clean root {clean.path} ready in {made:.0f} s")

    failures = []
    started = time.monotonic()
    work = Path(tempfile.mkdtemp(prefix=f"cv-package-check-{args.host}-"))
    merged, mounts, server = work / "root", Mounts(), None
    try:
        with locked(clean.lock, exclusive=False):
            for name in ("upper", "work"):
                (work / name).mkdir()
            mounts.mount(merged, "-t", "overlay", "overlay", "-o",
                         f"lowerdir={clean.path},upperdir={work / 'upper'},workdir={work / 'work'}")
            mounts.chroot_mounts(merged)
            # The X server runs outside; its socket folder is shared into the root.
            x11 = Path("/tmp/.X11-unix")
            x11.mkdir(exist_ok=True)
            x11.chmod(0o1777)
            mounts.mount(merged / "tmp" / ".X11-unix", "--bind", str(x11))

            say("apt-get update inside the root")
            apt(merged, "-q", "update", capture=True)
            before = snapshot(merged)
            obs_version = in_root(merged, "dpkg-query", "-W", "-f=${Version}", "obs-studio", capture=True).stdout
            say(f"the root's obs-studio is {obs_version}")

            # 1. Installed with apt, its Depends from the archive.
            staged = merged / "tmp" / "cv-check" / deb.name
            staged.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(deb, staged)
            inside_deb = "/" + str(staged.relative_to(merged))
            installs, removals = simulate_install(merged, inside_deb)
            say("apt would install besides it: " + (", ".join(i.split()[0] for i in installs) or "nothing"))
            dev = [i for i in installs if re.match(r"^\S+-dev(:\S+)?\s", i + " ")]
            other_obs = [i for i in installs if re.match(r"^(obs-|libobs)", i)]
            if dev:
                raise CheckError("installing the package would pull in development packages: " + "; ".join(dev))
            if other_obs:
                raise CheckError("installing the package would install another obs than the root's: "
                                 + "; ".join(other_obs) + " (is the clean root out of date? --refresh)")
            if removals:
                raise CheckError("installing the package would remove: " + "; ".join(removals))
            say(f"apt install {inside_deb}")
            apt(merged, "install", "-y", inside_deb, capture=True)
            files = in_root(merged, "dpkg", "-L", PACKAGE, capture=True).stdout.split()
            module = next((f for f in files if f.endswith(f"/{PLUGIN}.so")), None)
            data = next((f for f in files if f.endswith(f"/obs-plugins/{PLUGIN}")), None)
            expected_module = f"/usr/lib/x86_64-linux-gnu/obs-plugins/{PLUGIN}.so"
            expected_data = f"/usr/share/obs/obs-plugins/{PLUGIN}"
            if module != expected_module:
                failures.append(f"the package installs its module as {module}, not {expected_module}")
            if data != expected_data:
                failures.append(f"the package installs its data as {data}, not {expected_data}")
            if not (merged / expected_data.lstrip("/") / "locale" / "en-US.ini").is_file():
                failures.append(f"{expected_data}/locale/en-US.ini is missing after the install")
            say(f"installed: {module} and {data}/")

            # 2. The root's obs loads it from there and streams the vertical canvas.
            server = RtmpServer(root=work / "rtmp", keep=True).start()
            run_failures, crash = run_obs(args, merged, server, expected_module)
            if crash:
                # As the e2e tests do: one of the host's own crashes at exit, with no frame of
                # the plug-in, runs it once more; any other crash fails.
                say(f"obs crashed in its own shutdown ({crash}); obs runs once more")
                shutil.rmtree(merged / "tmp" / "cv-check" / "obs", ignore_errors=True)
                server.stop()
                server = RtmpServer(root=work / "rtmp-again", keep=True).start()
                run_failures, crash = run_obs(args, merged, server, expected_module)
            failures += run_failures

            # 3. Removed without a trace.
            say(f"apt remove --purge {PACKAGE}")
            apt(merged, "remove", "--purge", "-y", PACKAGE, capture=True)
            if installs:
                apt(merged, "autoremove", "--purge", "-y", capture=True)
            state = in_root(merged, "dpkg-query", "-W", "-f=${db:Status-Status}", PACKAGE, capture=True,
                            check=False).stdout.strip()
            if state not in ("", "not-installed"):
                failures.append(f"after the purge dpkg still knows the package ({state})")
            after = snapshot(merged)
            left, gone = sorted(after - before), sorted(before - after)
            if left:
                failures.append(f"{len(left)} path(s) left behind after the purge: " + ", ".join(left[:20]))
            if gone:
                failures.append(f"{len(gone)} path(s) of the clean root gone after the purge: " + ", ".join(gone[:20]))
            if not left and not gone:
                say(f"after the purge the root holds the same {len(after)} paths as before the install")
    finally:
        if server:
            server.stop()
        for pid in leftover_processes(merged):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        time.sleep(0.2)
        reap()
        mounts.unmount_all()
        if args.keep:
            say(f"kept in {work} (obs's home: {work}/upper/tmp/cv-check, the server's recordings: {work}/rtmp)")
        elif mounts_under(work):
            say(f"{work} is still mounted on; left in place")
        else:
            shutil.rmtree(work, ignore_errors=True)
    say(f"check of {deb.name} took {time.monotonic() - started:.0f} s (the clean root cached)")
    return failures


def run_obs(args, merged, server, expected_module):
    """Runs the root's obs with the plug-in streaming the vertical canvas: the failures, and
    which of the host's own crashes at exit it ended in (None for none)."""
    failures = []
    settings = {"rtmpurl": server.app_url, "streamkey": "vertical", "canvaswidth": args.width,
                "canvasheight": args.height, "autostartwithmain": "true"}
    scenes = {"Scenes": {"count": 1, "activescene": "Vertical", "scene_0_name": "Vertical",
                         "scene_0_source": "Main"}}
    mapped, main_live, vertical_live = None, False, False
    with RootObsSession(merged, keep=args.keep, stream=(server.app_url, "main"), profile_settings=settings,
                        global_settings=scenes) as obs:
        obs.prepare().start()
        try:
            version = obs.wait_ready()
            say(f"obs {version.get('obsVersion')} runs inside the root on display {obs.display}")
            if not version.get("obsVersion", "").startswith(HOSTS[args.host]["obs"] + "."):
                failures.append(f"the root runs obs {version.get('obsVersion')}, not {HOSTS[args.host]['obs']}.x")
            obs.wait_for_log(f"{LOG_TAG} Vertical Canvas dock registered", timeout=30)
            mapped = obs.mapped_module()
            obs.request("StartStream")
            main_live, vertical_live = wait_live(obs, timeout=45)
            say("main stream " + ("live" if main_live else "DID NOT START") + "; vertical stream " +
                ("live" if vertical_live else "DID NOT START"))
            time.sleep(args.seconds)
            obs.request("StopStream")
            deadline = time.monotonic() + 15
            while any(streams_live(obs)) and time.monotonic() < deadline:
                time.sleep(0.25)
            running = obs.obs.poll() is None
        except (ObsError, OSError, websocket.WebSocketException) as error:
            if obs.obs.poll() is None:
                raise ObsError(f"talking to obs failed: {error}") from error
            failures.append(f"obs ended with {obs.obs.returncode} before it was closed")
            running = False
        code = obs.close()
        log = obs.log_text()
        say(f"obs closed with exit code {code}")
        plugins_dir = obs.plugins_dir
        # Only a crash while it closes can be one of the host's own at exit.
        crash = obs.known_host_crash() if code == -signal.SIGSEGV else None
        if crash and not running:
            crash = None
        if code not in (0, None) and not crash and (obs.root / "crash-backtrace.txt").exists():
            say(f"obs's backtrace: {obs.root / 'crash-backtrace.txt'}" + ("" if args.keep else " (kept with --keep)"))

    # With --verbose the host logs each module it loads (by file name in OBS 29 and 32).
    loaded = [line for line in log.splitlines() if re.search(rf"Loading module: (\S*/)?{PLUGIN}\.so$", line.strip())]
    for line in log.splitlines():
        if LOG_TAG in line and ("Loaded successfully" in line or "Loading version" in line):
            say("obs log: " + line.strip())
    for line in loaded:
        say("obs log: " + line.strip())
    if f"{LOG_TAG} Loaded successfully" not in log:
        failures.append(f"the log has no '{LOG_TAG} Loaded successfully'")
    if f"{LOG_TAG} Unloaded" not in log:
        failures.append(f"the log has no '{LOG_TAG} Unloaded'")
    if f"Failed to load 'en-US' text for module: '{PLUGIN}" in log:
        failures.append("obs did not find the plug-in's data (its locale)")
    if mapped != expected_module:
        failures.append(f"obs mapped the module from {mapped}, not {expected_module}")
    else:
        say(f"obs mapped the module from {mapped}")
    if not loaded:
        failures.append(f"the log has no 'Loading module: {PLUGIN}.so'")
    for line in loaded:
        path = line.split("Loading module: ", 1)[1].strip()
        if "/" in path and os.path.normpath(path) != expected_module:
            failures.append(f"obs logged loading the module from {path}")
    if plugins_dir.exists():
        failures.append(f"the per-user plug-in folder {plugins_dir} exists: the module may have come from there")
    if not main_live:
        failures.append("the main stream did not start")
    if not vertical_live:
        failures.append("the vertical stream did not start")
    if code != 0:
        failures.append(f"obs exited with {code}")

    recordings = server.recordings("vertical")
    if not recordings:
        failures.append("the server received no vertical stream")
    for path in recordings:
        info = media_probe.probe(path)
        video = info.get("video") or {}
        clean = info["ok"] and not info.get("decode_errors")
        say(f"server received: {media_probe.describe(info)}; " + ("decodes cleanly" if clean else "DECODE ERRORS"))
        if not clean:
            failures.append(f"the vertical stream does not decode: {info.get('error') or info.get('decode_errors')}")
        if (video.get("width"), video.get("height")) != (args.width, args.height):
            failures.append(f"the vertical stream is {video.get('width')}x{video.get('height')}, "
                            f"not {args.width}x{args.height}")
        if info.get("duration", 0) < args.seconds / 2:
            failures.append(f"the vertical stream lasted {info.get('duration', 0):.1f} s of {args.seconds} s")
    return failures, crash


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host", choices=sorted(HOSTS), default="native")
    parser.add_argument("--deb", required=True, help="the package to check")
    parser.add_argument("--seconds", type=float, default=8, help="how long the vertical stream runs (default 8)")
    parser.add_argument("--width", type=int, default=720, help="vertical canvas width (default 720)")
    parser.add_argument("--height", type=int, default=1280, help="vertical canvas height (default 1280)")
    parser.add_argument("--refresh", action="store_true", help="update the cached clean root first")
    parser.add_argument("--keep", action="store_true", help="keep the check's folder")
    args = parser.parse_args()
    if os.geteuid() != 0:
        print("package check: needs root (debootstrap, chroot and mounts)", file=sys.stderr)
        return 2
    # Orphans of anything started in the root come to this process, which waits for them
    # (PID 1 here does not).
    ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        failures = check(args)
    except (CheckError, ObsError, RtmpServerError) as error:
        failures = [str(error)]
    except (KeyboardInterrupt, SystemExit) as stop:
        print(f"package check ({args.host}) interrupted; everything it started and mounted is gone",
              file=sys.stderr)
        return stop.code if isinstance(stop, SystemExit) and isinstance(stop.code, int) else 130
    finally:
        reap()
    if failures:
        print(f"package check ({args.host}) FAILED:", file=sys.stderr)
        for failure in failures:
            print(f"  - {failure}", file=sys.stderr)
        return 1
    say(f"PASSED: {Path(args.deb).name} installs, loads, streams and purges cleanly on a clean "
        f"Debian {HOSTS[args.host]['suite']}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
