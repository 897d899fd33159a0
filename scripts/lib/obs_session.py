"""Runs the real obs program in a throwaway home with the plug-in installed.

Used by the demo and, with what only they need on top, by the end-to-end tests. Everything started here (Xvfb or
weston, obs) stays a child of this process and is waited for, so nothing is left behind.

obs runs on X11 (a private Xvfb, or a display given) or, with wayland=True, natively on Wayland under a private
headless weston. Wayland lets no other client find, close or read another's windows: there the window helpers
find nothing, screenshots go through the compositor and obs is closed with SIGINT, which obs handles by closing its
main window.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import websocket  # Debian's python3-websocket
from Xlib import X, display as xdisplay, protocol  # Debian's python3-xlib

PLUGIN = "corvane-vertical-canvas"
LOG_TAG = "[corvane-obs-vertical]"
PROFILE = "CV"
COLLECTION = "CV"
WAYLAND_SOCKET = "wayland-cv"
SCREEN = (1600, 1000)


def known_host_crash(home, keep_in, obs, sysroot=None):
    """Which of the newest host's own crashes at exit (docs/reliability.md) the core file obs
    left in `home` shows, read with gdb against the `obs` program (and the libraries under
    `sysroot`, for an obs in another root); None for any other, for one with a frame of the
    plug-in, and without a core file or gdb. The backtrace stays in `keep_in`, the core
    (hundreds of MB) does not."""
    cores, gdb = sorted(Path(home).glob("core*")), shutil.which("gdb")
    if not (cores and gdb and obs):
        return None
    setup = ["-ex", f"set sysroot {sysroot}"] if sysroot else []
    try:
        out = subprocess.run([gdb, "-batch", "-nx", *setup, "-ex", "bt 40", str(obs), str(cores[-1])],
                             capture_output=True, text=True, timeout=300).stdout
    except subprocess.TimeoutExpired:
        return None
    frames = list(dict.fromkeys(line for line in out.splitlines() if line.startswith("#")))
    (Path(keep_in) / "crash-backtrace.txt").write_text("\n".join(frames) + "\n")
    for core in cores:
        core.unlink()
    if not frames or any(PLUGIN in frame for frame in frames):
        return None
    if (any("signal_handler_disconnect" in frame for frame in frames[:3])
            and any("QObjectPrivate::deleteChildren" in frame for frame in frames[:6])):
        return "a source list widget disconnecting from a freed source"
    if "obs-websocket.so" in frames[0]:
        return "the websocket server's network thread"
    return None


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def colour_abgr(rgb):
    """OBS colour sources store 0xAABBGGRR."""
    r, g, b = (rgb >> 16) & 255, (rgb >> 8) & 255, rgb & 255
    return (0xFF << 24) | (b << 16) | (g << 8) | r


def three_band_collection(width, height, colours=(0xFF0000, 0x00FF00, 0x0000FF)):
    """A scene "Main" whose left third, middle third and right third are solid colours."""
    third = width // 3
    sources, items = [], []
    for i, (name, rgb) in enumerate(zip(("Left", "Middle", "Right"), colours)):
        w = third if i < 2 else width - 2 * third
        sources.append({
            "id": "color_source_v3", "versioned_id": "color_source_v3", "name": name,
            "settings": {"color": colour_abgr(rgb), "width": w, "height": height},
        })
        items.append({
            "name": name, "id": i + 1, "visible": True, "locked": False,
            "pos": {"x": float(i * third), "y": 0.0}, "scale": {"x": 1.0, "y": 1.0},
            "rot": 0.0, "align": 5, "bounds_type": 0, "bounds_align": 0,
            "bounds": {"x": 0.0, "y": 0.0},
        })
    sources.append({"id": "scene", "versioned_id": "scene", "name": "Main",
                    "settings": {"items": items, "id_counter": len(items), "custom_size": False}})
    return {
        "name": COLLECTION, "current_scene": "Main", "current_program_scene": "Main",
        "scene_order": [{"name": "Main"}], "sources": sources, "groups": [],
        "transitions": [], "current_transition": "Fade", "transition_duration": 300,
        "quick_transitions": [], "saved_projectors": [], "preview_locked": False,
        "scaling_enabled": False, "modules": {},
    }


def ini(sections):
    out = []
    for section, values in sections.items():
        out.append(f"[{section}]")
        out.extend(f"{k}={v}" for k, v in values.items())
        out.append("")
    return "\n".join(out)


class ObsError(RuntimeError):
    pass


class ObsConnectionClosed(ObsError):
    pass


class ObsSession:
    """One run of obs: prepare() the home, start(), talk to it, close()."""

    def __init__(self, build_dir, base_size=(640, 360), fps=30, root=None,
                 profile_settings=None, keep=False, use_display=None, stream=None, extra_profiles=None,
                 global_settings=None, hotkeys=None, language=None, wayland=False):
        self.build_dir = Path(build_dir)
        self.base_size = base_size
        self.fps = fps
        self.profile_settings = profile_settings or {}
        # (server, key) of the main stream; extra profiles: {name: plug-in settings};
        # the plug-in's global file: {section: {key: value}}.
        self.stream = stream
        self.extra_profiles = extra_profiles or {}
        self.global_settings = global_settings or {}
        # Hotkey bindings as the host's settings keep them: {hotkey name: [key, ...]}.
        self.hotkeys = hotkeys or {}
        # The host's language, e.g. "de-DE"; its own default (English) when None.
        self.language = language
        self.keep = keep
        self.use_display = use_display
        self.wayland = wayland
        self.root = Path(root or tempfile.mkdtemp(prefix="cv-obs-"))
        self.home = self.root / "home"
        self.config = self.root / "config"
        self.obs_config = self.config / "obs-studio"
        self.port = free_port()
        self.xvfb = None
        self.compositor = None
        self.runtime_dir = self.root / "runtime"
        self.obs = None
        self.display = None
        self.ws = None
        self._request_id = 0
        self.stdout_path = self.root / "obs-stdout.txt"
        self.recordings_dir = self.root / "recordings"
        self.preexec = None  # run in the obs process before it starts

    # ---- preparation -------------------------------------------------------------------

    @property
    def profile_dir(self):
        return self.obs_config / "basic" / "profiles" / PROFILE

    @property
    def plugins_dir(self):
        return self.obs_config / "plugins"

    @property
    def plugin_config_dir(self):
        return self.obs_config / "plugin_config" / PLUGIN

    def _write_profile(self, name, plugin_settings, base_size=None):
        w, h = base_size or self.base_size
        folder = self.obs_config / "basic" / "profiles" / name
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "basic.ini").write_text(ini({
            "General": {"Name": name},
            "Video": {"BaseCX": w, "BaseCY": h, "OutputCX": w, "OutputCY": h, "FPSType": 1,
                      "FPSInt": self.fps, "ColorFormat": "NV12", "ColorSpace": "709", "ColorRange": "Partial"},
            "Audio": {"SampleRate": 48000, "ChannelSetup": "Stereo"},
            "Output": {"Mode": "Simple"},
            "SimpleOutput": {"VBitrate": 1500, "StreamEncoder": "x264", "ABitrate": 128,
                             "Preset": "veryfast", "FilePath": str(self.recordings_dir)},
            "Hotkeys": {name: json.dumps({"bindings": [{"key": key} for key in keys]})
                        for name, keys in self.hotkeys.items()},
        }))
        if self.stream:
            server, key = self.stream
            (folder / "service.json").write_text(json.dumps(
                {"type": "rtmp_custom", "settings": {"server": server, "key": key, "use_auth": False}}))
        if plugin_settings:
            # Values that are themselves dicts are sections of their own ("Destination2").
            sections = {"VerticalCanvas": {k: v for k, v in plugin_settings.items() if not isinstance(v, dict)}}
            sections.update({k: v for k, v in plugin_settings.items() if isinstance(v, dict)})
            (folder / f"{PLUGIN}.ini").write_text(ini(sections))

    def prepare(self):
        self.write_home()
        # Installed the way a user installs it: into the per-user plug-in folder.
        subprocess.run(["cmake", "--install", str(self.build_dir), "--prefix", str(self.plugins_dir)],
                       check=True, stdout=subprocess.DEVNULL)
        if not (self.plugins_dir / PLUGIN / "bin" / "64bit" / f"{PLUGIN}.so").is_file():
            raise ObsError(f"install did not produce the plug-in under {self.plugins_dir}")
        return self

    def write_home(self):
        """The host's settings, profile and scene collection, and the plug-in's settings."""
        self.home.mkdir(parents=True, exist_ok=True)
        self.recordings_dir.mkdir(parents=True, exist_ok=True)
        w, h = self.base_size
        general = {
            "General": {"FirstRun": "true", "LastVersion": "999999999", "EnableAutoUpdates": "false",
                        "ConfirmOnExit": "false", "InfoIncrement": "999"},
            "Basic": {"Profile": PROFILE, "ProfileDir": PROFILE, "SceneCollection": COLLECTION,
                      "SceneCollectionFile": COLLECTION, "ConfigOnNewProfile": "false"},
            "BasicWindow": {"geometry": "", "PreviewEnabled": "true"},
            "OBSWebSocket": {"FirstLoad": "false", "ServerEnabled": "true", "ServerPort": str(self.port),
                             "AlertsEnabled": "false", "AuthRequired": "false", "ServerPassword": ""},
        }
        if self.language:
            general["General"]["Language"] = self.language
        self.obs_config.mkdir(parents=True, exist_ok=True)
        # Older hosts read global.ini, newer ones user.ini. A second run in the same home
        # keeps the dock layout the host saved at its last exit.
        for name in ("global.ini", "user.ini"):
            path = self.obs_config / name
            saved = [line.split("=", 1)[1] for line in (path.read_text().splitlines() if path.exists() else [])
                     if line.startswith("DockState=")]
            settings = {**general, "BasicWindow": {**general["BasicWindow"],
                                                   **({"DockState": saved[0]} if saved else {})}}
            path.write_text(ini(settings))
        ws_dir = self.obs_config / "plugin_config" / "obs-websocket"
        ws_dir.mkdir(parents=True, exist_ok=True)
        (ws_dir / "config.json").write_text(json.dumps({
            "first_load": False, "server_enabled": True, "server_port": self.port,
            "alerts_enabled": False, "auth_required": False, "server_password": "",
        }))

        self._write_profile(PROFILE, self.profile_settings)
        # Extra profiles: {name: plug-in settings}, or {name: (plug-in settings, (width, height))}
        # for one of another video size.
        for name, settings in self.extra_profiles.items():
            self._write_profile(name, *(settings if isinstance(settings, tuple) else (settings,)))
        if self.global_settings:
            self.plugin_config_dir.mkdir(parents=True, exist_ok=True)
            (self.plugin_config_dir / "settings-global.ini").write_text(ini(self.global_settings))

        scenes = self.obs_config / "basic" / "scenes"
        scenes.mkdir(parents=True, exist_ok=True)
        # A second run in the same home keeps what the first saved in its collection.
        collection = scenes / f"{COLLECTION}.json"
        if not collection.exists():
            collection.write_text(json.dumps(three_band_collection(w, h)))

    # ---- processes ---------------------------------------------------------------------

    def _start_xvfb(self):
        r, w = os.pipe()
        self.xvfb = subprocess.Popen(
            ["Xvfb", "-displayfd", str(w), "-screen", "0", "1600x1000x24", "-nolisten", "tcp", "-noreset"],
            pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(w)
        number = b""
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and not number.endswith(b"\n"):
            chunk = os.read(r, 16)
            if not chunk:
                break
            number += chunk
        os.close(r)
        if not number.strip():
            raise ObsError("Xvfb did not start")
        self.display = ":" + number.decode().strip()

    def _start_weston(self, timeout=20):
        """A headless weston that renders with its CPU renderer, so that its screenshots hold
        what the clients drew (its default headless renderer draws nothing), with its debug
        protocols on, which its screenshot client needs."""
        weston = shutil.which("weston")
        if not weston:
            raise ObsError("weston is not installed (scripts/setup installs it)")
        help_text = subprocess.run([weston, "--help"], capture_output=True, text=True, timeout=30)
        # Newer westons name the renderer; older ones have only --use-pixman.
        renderer = "--renderer=pixman" if "--renderer=" in help_text.stdout + help_text.stderr else "--use-pixman"
        self.runtime_dir.mkdir(mode=0o700, parents=True, exist_ok=True)
        width, height = SCREEN
        self.compositor = subprocess.Popen(
            [weston, "--backend=headless-backend.so", renderer, f"--width={width}", f"--height={height}",
             f"--socket={WAYLAND_SOCKET}", "--idle-time=0", "--debug", "--no-config",
             f"--log={self.root / 'weston-log.txt'}"],
            env={**self._base_env(), "XDG_RUNTIME_DIR": str(self.runtime_dir)},
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + timeout
        while not (self.runtime_dir / WAYLAND_SOCKET).exists():
            if self.compositor.poll() is not None or time.monotonic() > deadline:
                raise ObsError(f"weston did not start; its log is {self.root / 'weston-log.txt'}")
            time.sleep(0.1)

    def _base_env(self):
        return {k: v for k, v in os.environ.items()
                if not k.startswith(("QT_", "WAYLAND")) and k not in ("DISPLAY", "XDG_RUNTIME_DIR")}

    def env(self):
        env = self._base_env()
        env.update(HOME=str(self.home), XDG_CONFIG_HOME=str(self.config), LIBGL_ALWAYS_SOFTWARE="1", LANG="C.UTF-8")
        if self.wayland:
            env.update(WAYLAND_DISPLAY=WAYLAND_SOCKET, XDG_RUNTIME_DIR=str(self.runtime_dir), QT_QPA_PLATFORM="wayland")
        else:
            env.update(DISPLAY=self.display, QT_QPA_PLATFORM="xcb")
        return env

    def start(self, timeout=90):
        if self.wayland:
            self._start_weston()
        elif self.use_display:
            self.display = self.use_display
        else:
            self._start_xvfb()
        self._stdout = open(self.stdout_path, "wb")
        self.obs = subprocess.Popen(
            ["obs", "--multi", "--disable-shutdown-check", "--profile", PROFILE, "--collection", COLLECTION],
            env=self.env(), stdout=self._stdout, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
            cwd=str(self.home), preexec_fn=self.preexec)
        self._connect(timeout)
        return self

    def _connect(self, timeout):
        deadline = time.monotonic() + timeout
        last = None
        while time.monotonic() < deadline:
            if self.obs.poll() is not None:
                # The root goes with the test: what the host said last goes with the error.
                tail = "\n".join(self.log_text().splitlines()[-25:])
                raise ObsError(f"obs exited early with {self.obs.returncode}; its output ended:\n{tail}")
            try:
                ws = websocket.create_connection(f"ws://127.0.0.1:{self.port}", timeout=10)
                hello = json.loads(ws.recv())
                if hello.get("op") != 0:
                    raise ObsError(f"unexpected greeting {hello}")
                ws.send(json.dumps({"op": 1, "d": {"rpcVersion": 1, "eventSubscriptions": 0}}))
                if json.loads(ws.recv()).get("op") != 2:
                    raise ObsError("websocket identify refused")
                self.ws = ws
                return
            except (OSError, websocket.WebSocketException) as error:
                last = error
                time.sleep(0.5)
        raise ObsError(f"websocket server not reachable on port {self.port}: {last}")

    def request(self, kind, data=None, timeout=30):
        self._request_id += 1
        rid = str(self._request_id)
        payload = {"requestType": kind, "requestId": rid}
        if data is not None:
            payload["requestData"] = data
        self.ws.settimeout(timeout)
        self.ws.send(json.dumps({"op": 6, "d": payload}))
        while True:
            text = self.ws.recv()
            if not text:
                raise ObsConnectionClosed(f"the host closed the websocket connection during {kind}")
            message = json.loads(text)
            if message.get("op") == 7 and message["d"].get("requestId") == rid:
                status = message["d"]["requestStatus"]
                if not status.get("result"):
                    raise ObsError(f"{kind} failed: {status}")
                return message["d"].get("responseData", {})

    def wait_ready(self, timeout=60, keep_windows=("Vertical Canvas",)):
        """Waits until the host answers requests, closing any message box it shows on
        the way (newer hosts report a plug-in that refused to load in one, and are
        "not ready" until it is closed)."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                return self.request("GetVersion")
            except ObsError as error:
                if time.monotonic() > deadline:
                    raise
                if isinstance(error, ObsConnectionClosed):
                    # Seen once on the newest host while its message box was up.
                    self._connect(max(1, deadline - time.monotonic()))
                    continue
                for wid, title in self.dialogs():
                    # The floating dock is no message box; before the main window
                    # shows, closing it could end the host's event loop.
                    if title in keep_windows:
                        continue
                    print(f"closing the host's window {title!r} while it is not ready", file=sys.stderr)
                    self._send_delete(wid)
                time.sleep(0.5)

    def wait_for_log(self, text, timeout=30):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if text in self.log_text():
                return True
            time.sleep(0.25)
        return False

    def log_text(self):
        """The host's log of this run (the newest file of its log folder)."""
        logs = sorted((self.obs_config / "logs").glob("*.txt"), key=lambda p: p.stat().st_mtime)
        if logs:
            return logs[-1].read_text(errors="replace")
        return self.stdout_path.read_text(errors="replace") if self.stdout_path.exists() else ""

    # ---- windows -----------------------------------------------------------------------

    def _windows(self, top_level_only=False):
        if self.wayland:
            return []
        d = xdisplay.Display(self.display)
        d.set_error_handler(lambda *_: None)  # windows may vanish while we look at them
        try:
            net_name = d.intern_atom("_NET_WM_NAME")
            utf8 = d.intern_atom("UTF8_STRING")

            def walk(window):
                try:
                    children = window.query_tree().children
                except Exception:  # the window is gone already
                    return
                for child in children:
                    yield child
                    if not top_level_only:
                        yield from walk(child)

            found = []
            for window in walk(d.screen().root):
                try:
                    cls = window.get_wm_class()
                    prop = window.get_full_property(net_name, utf8)
                    title = prop.value.decode(errors="replace") if prop else (window.get_wm_name() or "")
                    attrs = window.get_attributes()
                except Exception:  # windows vanish while we walk
                    continue
                if cls and attrs.map_state == X.IsViewable:
                    found.append((window.id, cls, title))
            return found
        finally:
            d.close()

    def main_window(self):
        for wid, cls, title in self._windows():
            if title.startswith("OBS ") and " - Profile: " in title:
                return wid
        return None

    def _send_delete(self, wid):
        if self.wayland:
            return
        d = xdisplay.Display(self.display)
        d.set_error_handler(lambda *_: None)  # the window may be gone already
        try:
            window = d.create_resource_object("window", wid)
            protocols = d.intern_atom("WM_PROTOCOLS")
            delete = d.intern_atom("WM_DELETE_WINDOW")
            event = protocol.event.ClientMessage(window=window, client_type=protocols,
                                                 data=(32, [delete, X.CurrentTime, 0, 0, 0]))
            window.send_event(event, event_mask=X.NoEventMask)
            d.flush()
        finally:
            d.close()

    def dialogs(self):
        """Titles of the host's open top-level windows other than the main window (not the
        native child windows inside it, such as the preview's)."""
        main = self.main_window()
        return [(wid, title) for wid, cls, title in self._windows(top_level_only=True)
                if wid != main and title and cls and "obs" in " ".join(cls).lower()]

    def close(self, timeout=60, keep_windows=("Vertical Canvas",)):
        """Asks obs to quit as a user would: WM_DELETE_WINDOW on its main window. When that
        does not end it (a message box holds the quit up: the newer hosts report a plug-in
        that refused to load in one), its other windows are closed too, except those named
        in keep_windows (closing the floating dock would change what it records at exit)."""
        if not self.obs or self.obs.poll() is not None:
            return self.obs.returncode if self.obs else None
        if self.ws:
            try:
                self.ws.close()
            except Exception:
                pass
            self.ws = None
        deadline = time.monotonic() + timeout
        attempt = 0
        while time.monotonic() < deadline:
            if attempt > 0:
                for wid, title in self.dialogs():
                    if title not in keep_windows:
                        self._send_delete(wid)
            wid = self.main_window()
            if wid is not None:
                self._send_delete(wid)
            elif self.wayland and attempt == 0:
                # obs closes its main window on SIGINT, as the close button does; once only,
                # as a second one while it shuts down would be taken as a second close.
                self.obs.send_signal(signal.SIGINT)
            attempt += 1
            try:
                # Newer hosts can take several seconds to act on the first request.
                code = self.obs.wait(min(8 if attempt == 1 else 3, max(0.1, deadline - time.monotonic())))
            except subprocess.TimeoutExpired:
                continue
            if code != 0:
                # Whatever went wrong, its log and crash report stay for a look.
                self.keep = True
                print(f"obs exited with {code}; its home is kept in {self.root}", file=sys.stderr)
            return code
        self.obs.kill()
        self.obs.wait()
        raise ObsError(f"obs did not close within {timeout} s")

    def window_geometry(self, wid):
        """(x, y, width, height) of a window on the screen."""
        d = xdisplay.Display(self.display)
        try:
            window = d.create_resource_object("window", wid)
            geometry = window.get_geometry()
            origin = window.translate_coords(d.screen().root, 0, 0)
            return -origin.x, -origin.y, geometry.width, geometry.height
        finally:
            d.close()

    def screenshot(self, path, window=None):
        """Saves the screen, or one window of it, as PNG using ffmpeg's X11 grabber; on
        Wayland the whole screen, through weston's own screenshot client."""
        if self.wayland:
            return self._wayland_screenshot(path)
        cmd = ["ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab"]
        source = self.display
        if window is not None:
            x, y, w, h = self.window_geometry(window)
            cmd += ["-video_size", f"{w}x{h}"]
            source = f"{self.display}+{x},{y}"
        cmd += ["-i", source, "-frames:v", "1", str(path)]
        subprocess.run(cmd, check=True, env={**os.environ, "DISPLAY": self.display}, timeout=30)
        return path

    def _wayland_screenshot(self, path):
        shots = self.root / "screenshots"
        shots.mkdir(exist_ok=True)
        before = set(shots.iterdir())
        # It names the file by the time and writes it into its working folder.
        subprocess.run(["weston-screenshooter"], check=True, cwd=shots, timeout=30, stdout=subprocess.DEVNULL,
                       env={**self._base_env(), "WAYLAND_DISPLAY": WAYLAND_SOCKET,
                            "XDG_RUNTIME_DIR": str(self.runtime_dir)})
        made = sorted(set(shots.iterdir()) - before)
        if not made:
            raise ObsError("weston-screenshooter wrote no file")
        shutil.move(str(made[-1]), str(path))
        return path

    def shutdown(self):
        """Ends whatever still runs; always safe to call."""
        for proc in (self.obs, self.xvfb, self.compositor):
            if proc and proc.poll() is None:
                proc.send_signal(signal.SIGKILL if proc is self.obs else signal.SIGTERM)
                try:
                    proc.wait(15)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        if getattr(self, "_stdout", None):
            self._stdout.close()
            self._stdout = None
        if not self.keep:
            shutil.rmtree(self.root, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.shutdown()
