"""What a recording holds, read with FFmpeg's command-line tools (ffprobe, ffmpeg)."""

import json
import subprocess
from fractions import Fraction


def probe(path):
    """Codec, size, frame rate and duration of the video, the audio tracks, and whether
    the whole file decodes without an error."""
    out = subprocess.run(["ffprobe", "-v", "error", "-print_format", "json", "-show_streams", "-show_format",
                          str(path)], capture_output=True, text=True, timeout=60)
    info = {"path": str(path), "ok": out.returncode == 0, "video": None, "audio_tracks": 0, "duration": 0.0}
    if out.returncode != 0:
        info["error"] = out.stderr.strip()
        return info
    data = json.loads(out.stdout)
    for stream in data.get("streams", []):
        if stream.get("codec_type") == "video" and info["video"] is None:
            rate = stream.get("avg_frame_rate") or stream.get("r_frame_rate") or "0/1"
            info["video"] = {"codec": stream.get("codec_name"), "width": stream.get("width"),
                             "height": stream.get("height"),
                             "fps": float(Fraction(rate)) if rate != "0/0" else 0.0}
        elif stream.get("codec_type") == "audio":
            info["audio_tracks"] += 1
    info["duration"] = float(data.get("format", {}).get("duration", 0.0) or 0.0)
    decode = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-i", str(path), "-f", "null", "-"],
                            capture_output=True, text=True, timeout=120)
    info["decode_errors"] = decode.stderr.strip()
    return info


def describe(info):
    video = info.get("video") or {}
    return (f"{video.get('codec')} {video.get('width')}x{video.get('height')} @ {video.get('fps', 0):.2f} fps, "
            f"{info.get('duration', 0):.1f} s, {info.get('audio_tracks')} audio track(s)")


def frame_pixels(path, at_seconds, points):
    """RGB of the frame shown at `at_seconds`, at fractional (x, y) points."""
    info = probe(path)
    video = info.get("video") or {}
    width, height = video.get("width"), video.get("height")
    raw = subprocess.run(["ffmpeg", "-v", "error", "-ss", str(at_seconds), "-i", str(path), "-frames:v", "1",
                          "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], capture_output=True, timeout=60).stdout
    if not width or len(raw) < width * height * 3:
        return []
    result = []
    for fx, fy in points:
        x, y = min(width - 1, int(fx * width)), min(height - 1, int(fy * height))
        i = (y * width + x) * 3
        result.append(tuple(raw[i:i + 3]))
    return result
