"""Drives the desktop client's measurements for bench/client/run.sh.

Each profile is a data root with one user whose channels read feeds from local files, so the
figures measure the client and not a network. pelsu runs offscreen with no session bus and no
autostart directory of the user's; its local listeners get free ports.
"""
import getpass
import os
import shutil
import socket
import statistics
import subprocess
import sys
import time

build, work, channels, items, runs = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
pelsu = os.path.join(build, "trayClient", "pelsu")
stall = os.path.join(build, "benchClient", "bench_uiStall")
TRAY_LINE = b"The tray icon is shown."
DONE_LINE = b"Channel update complete."


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_profile(name, count):
    root = os.path.join(work, name)
    user = os.path.join(root, "Users", getpass.getuser())
    os.makedirs(os.path.join(user, "Channels"))
    feeds = os.path.join(root, "feeds")
    os.makedirs(feeds)
    with open(os.path.join(user, "config.ini"), "w") as out:
        out.write("[Global Options]\nAppServerPortNo=%d\nAppPluginServerPortNo=%d\n"
                  "DisableAllSound=1\nNoWelcomeNotification=1\n" % (free_port(), free_port()))
    # One log file for the whole run: the watch below counts its lines.
    with open(os.path.join(user, "debug.ini"), "w") as out:
        out.write("[Debug]\nMaxLogFileSizeKB=4000000\n")
    for n in range(count):
        feed = os.path.join(feeds, "feed%04d.xml" % n)
        with open(feed, "w") as out:
            out.write('<?xml version="1.0"?><rss version="2.0"><channel><title>Channel %d</title>'
                      '<link>http://bench.example/%d/</link><description>d</description>\n' % (n, n))
            for i in range(items):
                out.write('<item><title>Story %d of channel %d</title>'
                          '<link>http://bench.example/%d/%d</link>'
                          '<guid>http://bench.example/%d/%d</guid>'
                          '<description>Some words about story %d.</description></item>\n'
                          % (i, n, n, i, n, i, i))
            out.write("</channel></rss>\n")
        with open(os.path.join(user, "Channels", "C%04d.rss" % n), "w") as out:
            out.write("[Config]\nRssChannelUrl=%s\n" % feed)
    return root, os.path.join(user, "Logs", "pelsu.log")


class LogWatch:
    """Counts lines of the log as it grows, reading only what is new."""

    def __init__(self, path):
        self.path, self.offset, self.tail, self.counts = path, 0, b"", {}

    def count(self, text):
        if os.path.exists(self.path):
            with open(self.path, "rb") as log:
                log.seek(self.offset)
                data = log.read()
            self.offset += len(data)
            data = self.tail + data
            cut = data.rfind(b"\n") + 1
            self.tail = data[cut:]
            for line in data[:cut].split(b"\n"):
                for key in (TRAY_LINE, DONE_LINE):
                    if key in line:
                        self.counts[key] = self.counts.get(key, 0) + 1
        return self.counts.get(text, 0)


def rss_kib(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def run_client(root, log, wait_updates):
    """Starts pelsu on the profile; returns (seconds to the tray icon, RSS at the tray icon,
    RSS once wait_updates channel updates are complete and a second has passed)."""
    if os.path.exists(log):
        os.remove(log)
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen", XDG_CONFIG_HOME=os.path.join(work, "config"))
    env.pop("DBUS_SESSION_BUS_ADDRESS", None)
    watch = LogWatch(log)
    start = time.monotonic()
    process = subprocess.Popen([pelsu, "--home", root], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        while watch.count(TRAY_LINE) == 0:
            if process.poll() is not None:
                raise SystemExit("pelsu ended early with status %d" % process.returncode)
            time.sleep(0.001)
        to_tray = time.monotonic() - start
        rss_tray = rss_kib(process.pid)
        deadline = time.monotonic() + 600
        while watch.count(DONE_LINE) < wait_updates and time.monotonic() < deadline:
            time.sleep(0.05)
        time.sleep(1)
        rss_after = rss_kib(process.pid)
    finally:
        process.terminate()
        process.wait()
    return to_tray, rss_tray, rss_after


def clean_run_state(root):
    """Puts a profile back as it was before a run: the channels as written, no desktop settings."""
    user = os.path.join(root, "Users", getpass.getuser())
    shutil.rmtree(os.path.join(user, "DesktopSettings"), ignore_errors=True)
    for name in os.listdir(os.path.join(user, "Channels")):
        path = os.path.join(user, "Channels", name)
        url = None
        with open(path) as channel:
            for line in channel:
                if line.startswith("RssChannelUrl="):
                    url = line.strip()
        with open(path, "w") as channel:
            channel.write("[Config]\n%s\n" % url)


print("client with %d channels of %d items, %d runs each (median), offscreen, %s"
      % (channels, items, runs, time.strftime("%Y-%m-%d %H:%M:%S")))
empty, empty_log = make_profile("empty", 0)
full, full_log = make_profile("full", channels)
results = {"empty": [], "full": []}
for _ in range(runs):
    results["empty"].append(run_client(empty, empty_log, 0))
    clean_run_state(full)
    results["full"].append(run_client(full, full_log, channels))


def median(name, index):
    return statistics.median(r[index] for r in results[name])


t0, t1 = median("empty", 0), median("full", 0)
print("start to tray icon: empty profile %.3f s, %d channels %.3f s, ratio %.2f" % (t0, channels, t1, t1 / t0))
m0, m1 = median("empty", 1), median("full", 1)
print("resident memory at the tray icon: empty %d KiB, %d channels %d KiB, ratio %.2f" % (m0, channels, m1, m1 / m0))
a0, a1 = median("empty", 2), median("full", 2)
print("resident memory after the first update of every channel: empty %d KiB, %d channels %d KiB, ratio %.2f"
      % (a0, channels, a1, a1 / a0))

clean_run_state(full)
busy = subprocess.run([stall, "--home", full], capture_output=True, text=True, check=True).stdout.strip()
seconds = float(busy.split("seconds=")[1].split()[0])
clean_run_state(full)
idle = subprocess.run([stall, "--home", full, "--idle", "%.2f" % seconds],
                      capture_output=True, text=True, check=True).stdout.strip()
print("UI thread while the worker updates every channel: " + busy)
print("UI thread with the worker idle (baseline):         " + idle)
b = float(busy.split("longest_stall_ms=")[1].split()[0])
i = float(idle.split("longest_stall_ms=")[1].split()[0])
print("longest stall: %.2f ms busy, %.2f ms idle, ratio %.2f (goal: under 50 ms)" % (b, i, b / i if i else float("inf")))
