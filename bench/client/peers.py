"""pelsu beside another desktop feed reader on the same feeds, on a virtual desktop.

The feeds are served by a small HTTP server on 127.0.0.1 so that both programs fetch the same
documents the same way. For each program: the seconds from its start until its main window is
mapped, and the memory (summed proportional set size) of its whole process tree (a browser engine runs in child
processes) once it has fetched every feed. pelsu is measured three ways: with its window
shown, with the window never opened ("StartMinimized"), and after ten channel windows with
their summary pages were shown (bench_pages does that inside the client).

Usage: python3 peers.py BUILD_DIR WORK_DIR FEEDS PEERS...   (peers: quiterss)
"""
import getpass
import http.server
import os
import shutil
import socketserver
import sqlite3
import subprocess
import sys
import threading
import time

build, work, count, peers = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]
pelsu = os.path.join(build, "trayClient", "pelsu")
bench_pages = os.path.join(build, "benchClient", "bench_pages")
feeds_dir = os.path.join(work, "feeds")
requests = {"count": 0}


def make_feeds():
    os.makedirs(feeds_dir)
    for n in range(count):
        with open(os.path.join(feeds_dir, "feed%04d.xml" % n), "w") as out:
            out.write('<?xml version="1.0"?><rss version="2.0"><channel><title>Channel %d</title>'
                      '<link>http://bench.example/%d/</link><description>d</description>\n' % (n, n))
            for i in range(20):
                out.write('<item><title>Story %d of channel %d</title>'
                          '<link>http://bench.example/%d/%d</link><guid>http://bench.example/%d/%d</guid>'
                          '<description>&lt;p&gt;Some words about story %d, and a few more to make a '
                          'paragraph of a usual length.&lt;/p&gt;</description></item>\n'
                          % (i, n, n, i, n, i, i))
            out.write("</channel></rss>\n")


class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *args, **kwargs):
        super().__init__(*args, directory=feeds_dir, **kwargs)

    def do_GET(self):
        requests["count"] += 1
        super().do_GET()

    def log_message(self, *args):
        pass


def serve():
    server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


def tree_rss_kib(pid):
    """Memory of the process and all its descendants, as the sum of their proportional set
    sizes, so that pages the processes share (a browser engine's libraries) count once."""
    total, todo = 0, [pid]
    while todo:
        p = todo.pop()
        try:
            with open("/proc/%d/smaps_rollup" % p) as status:
                for line in status:
                    if line.startswith("Pss:"):
                        total += int(line.split()[1])
            with open("/proc/%d/task/%d/children" % (p, p)) as children:
                todo += [int(c) for c in children.read().split()]
        except OSError:
            pass
    return total


def wait_window(pid, name, timeout=60):
    """Seconds until a visible window whose title holds name belongs to the process tree."""
    start = time.monotonic()
    while time.monotonic() - start < timeout:
        found = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", name],
                               capture_output=True, text=True).stdout.split()
        if found:
            return time.monotonic() - start
        time.sleep(0.01)
    raise SystemExit("no window named %s within %d s" % (name, timeout))


def settle(seconds_quiet=3, timeout=120):
    """Waits until no feed was requested for a few seconds."""
    last, since, start = requests["count"], time.monotonic(), time.monotonic()
    while time.monotonic() - start < timeout:
        time.sleep(0.5)
        if requests["count"] != last:
            last, since = requests["count"], time.monotonic()
        elif time.monotonic() - since >= seconds_quiet:
            return


def pelsu_profile(port, minimized, name=None):
    root = os.path.join(work, "pelsu-%s" % (name or ("tray" if minimized else "window")))
    user = os.path.join(root, "Users", getpass.getuser())
    os.makedirs(os.path.join(user, "Channels"))
    # What a new user directory gets: the summary page's template.
    for name in ("DefaultChannelSummary.template", "DefaultChannelSummary.gif"):
        shutil.copy(os.path.join(build, "Resources", name), user)
    with open(os.path.join(user, "config.ini"), "w") as out:
        out.write("[Global Options]\nDisableAllSound=1\nNoWelcomeNotification=1\n"
                  "StartMinimized=%d\nAppServerPortNo=%d\nAppPluginServerPortNo=%d\n"
                  % (1 if minimized else 0, 20000 + os.getpid() % 10000, 30000 + os.getpid() % 10000))
    for n in range(count):
        with open(os.path.join(user, "Channels", "C%04d.rss" % n), "w") as out:
            out.write("[Config]\nRssChannelUrl=http://127.0.0.1:%d/feed%04d.xml\n" % (port, n))
    return root


def run_pelsu(port, minimized):
    root = pelsu_profile(port, minimized)
    env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"))
    before = requests["count"]
    start = time.monotonic()
    process = subprocess.Popen([pelsu, "--home", root], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        shown = None if minimized else wait_window(process.pid, "Pelsu")
        while requests["count"] - before < count and time.monotonic() - start < 120:
            time.sleep(0.2)
        settle()
        return shown, tree_rss_kib(process.pid)
    finally:
        process.terminate()
        process.wait()


def run_pelsu_pages(port):
    if not os.path.exists(bench_pages):
        return None
    root = pelsu_profile(port, True, "pages")
    out = subprocess.run([bench_pages, "--home", root, "--pages", "10"], capture_output=True,
                         text=True, timeout=300)
    return out.stdout.strip() or out.stderr.strip()


def run_quiterss(port):
    home = os.path.join(work, "quiterss-home")
    os.makedirs(home)
    env = dict(os.environ, HOME=home)
    env.pop("XDG_CONFIG_HOME", None)
    env.pop("XDG_DATA_HOME", None)
    # A first start makes its database; the feeds go into it, then the measured start.
    first = subprocess.Popen(["quiterss"], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_window(first.pid, "QuiteRSS")
    time.sleep(2)
    first.terminate()
    first.wait()
    database = os.path.join(home, ".local/share/QuiteRss/QuiteRss/feeds.db")
    with sqlite3.connect(database) as db:
        for n in range(count):
            db.execute("insert into feeds(text, title, xmlUrl, parentId, rowToParent, updateOnStartup)"
                       " values(?, ?, ?, 0, ?, 1)",
                       ("Channel %d" % n, "Channel %d" % n, "http://127.0.0.1:%d/feed%04d.xml" % (port, n), n))
    ini = os.path.join(home, ".config/QuiteRss/QuiteRss.ini")
    with open(ini, "a") as out:
        out.write("\n[Settings]\nautoUpdatefeedsStartUp=true\n")
    before = requests["count"]
    start = time.monotonic()
    process = subprocess.Popen(["quiterss"], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        shown = wait_window(process.pid, "QuiteRSS")
        while requests["count"] - before < count and time.monotonic() - start < 120:
            time.sleep(0.2)
        settle()
        return shown, tree_rss_kib(process.pid), requests["count"] - before
    finally:
        process.terminate()
        process.wait()


make_feeds()
port = serve()
print("%d feeds of 20 items served on 127.0.0.1:%d, %s" % (count, port, time.strftime("%Y-%m-%d %H:%M:%S")))
shown, rss = run_pelsu(port, minimized=False)
print("pelsu      start to main window %.3f s   process tree PSS with the window, feeds fetched: %d KiB" % (shown, rss))
_, rss = run_pelsu(port, minimized=True)
print("pelsu      window never opened                process tree PSS in the tray, feeds fetched:  %d KiB" % rss)
pages = run_pelsu_pages(port)
if pages:
    print("pelsu      after ten channel pages: %s" % pages)
for peer in peers:
    if peer == "quiterss":
        shown, rss, fetched = run_quiterss(port)
        print("quiterss   start to main window %.3f s   process tree PSS with the window, %d feeds fetched: %d KiB"
              % (shown, fetched, rss))
