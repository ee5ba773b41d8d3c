#!/usr/bin/python3
"""Benchmarks of the crosspoint panel in headless Chromium, against the
emulator; one Markdown table on standard output.

- page ready: a browser loads the page of a 1024 x 1024 switcher until its
  names and grid show (median of 5; target at most 1 s);
- routing report to lit cell: the page's own record of the time from each
  routing report reaching the panel to its cell shown (takes on the
  emulator's panel; target p50 at most 50 ms on loopback);
- idle CPU: the panel's CPU over 30 s with five browsers connected and
  nothing happening but status polling (target at most 0.5 % of a core);
- 100 idle event streams (raw sockets, from loopback addresses of their own):
  the panel's CPU over 30 s and its resident memory, and how long a page
  and a take then take beside them (target at most 1 s).

  panel_bench.py PANEL BACKEND EMULATOR
"""
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "panel"))
import panel_test as pt  # noqa: E402  the tests' emulator, panel and browser

from selenium.webdriver.common.by import By  # noqa: E402


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def started(options):
    directory = tempfile.TemporaryDirectory()
    emu = pt.Emulator(*options)
    return directory, emu, pt.Panel(emu, directory.name)


def page_ready():
    directory, emu, panel = started(("--outputs", "1024", "--inputs", "1024"))
    first = pt.browser()
    first.get(panel.url)
    pt.until(lambda: first.find_elements(By.CSS_SELECTOR, '.dest-item[data-o="1022"]'), 60)
    first.quit()
    times = []
    for _ in range(5):
        d = pt.browser()
        start = time.time()
        d.get(panel.url)
        pt.until(lambda: d.execute_script(
            "return !!document.querySelector('.dest-item[data-o=\"1022\"]') && "
            "!!document.querySelector('.cell')"), 30)
        times.append(time.time() - start)
        d.quit()
    panel.stop()
    emu.stop()
    return statistics.median(times), times


def report_to_lit(takes=60):
    directory, emu, panel = started(("--outputs", "16", "--inputs", "16"))
    d = pt.browser()
    d.get(panel.url)
    pt.until(lambda: d.find_elements(By.CSS_SELECTOR, ".cell.lit"))
    for n in range(takes):
        # Each take changes its destination's route: a report each.
        emu.control("take %d %d" % (1 + n % 16, 1 + (n * 7 + 3 + n // 16) % 16))
        time.sleep(0.5)  # a status poll between takes: a report each
    time.sleep(1)
    samples = sorted(d.execute_script("return window.panelLatencies"))
    d.quit()
    panel.stop()
    emu.stop()
    return samples


def idle_cpu(browsers=5, seconds=30):
    directory, emu, panel = started(("--outputs", "16", "--inputs", "16"))
    open_ = []
    for _ in range(browsers):
        d = pt.browser()
        d.get(panel.url)
        pt.until(lambda: d.find_elements(By.CSS_SELECTOR, ".cell.lit"))
        open_.append(d)
    time.sleep(5)
    before = cpu_seconds(panel.proc.pid)
    time.sleep(seconds)
    used = cpu_seconds(panel.proc.pid) - before
    for d in open_:
        d.quit()
    panel.stop()
    emu.stop()
    return 100 * used / seconds


def idle_streams(streams=100, seconds=30):
    directory, emu, panel = started(("--outputs", "16", "--inputs", "16"))
    port = int(panel.port())
    rss = lambda: pt.kib(panel.proc.pid, "VmRSS")  # noqa: E731
    before = rss()
    socks = []
    for k in range(streams):
        s = socket.socket()
        s.bind(("127.0.0.%d" % (10 + k // 8), 0))
        s.connect(("127.0.0.1", port))
        s.sendall(b"GET /events HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % port)
        socks.append(s)
    time.sleep(5)
    cpu = cpu_seconds(panel.proc.pid)
    time.sleep(seconds)
    cpu = cpu_seconds(panel.proc.pid) - cpu
    grown = rss() - before
    start = time.time()
    page = pt.urllib.request.urlopen(panel.url, timeout=30).read().decode()
    secret = re.search(r'panel-secret" content="(\w+)', page)[1]
    take = pt.urllib.request.Request(panel.url + "take", method="POST", headers={"X-Panel-Secret": secret},
                                     data=b'{"takes":[{"output":2,"input":5}]}')
    pt.urllib.request.urlopen(take, timeout=30).read()
    answered = time.time() - start
    for s in socks:
        s.close()
    panel.stop()
    emu.stop()
    return 100 * cpu / seconds, grown, answered


def main():
    pt.PANEL, pt.BACKEND, pt.EMULATOR = sys.argv[1:4]
    ready, runs = page_ready()
    lat = report_to_lit()
    cpu = idle_cpu()
    stream_cpu, stream_kib, answered = idle_streams()
    p50, p90 = lat[len(lat) // 2], lat[int(len(lat) * 0.9)]
    met = lambda ok: "met" if ok else "MISSED"  # noqa: E731
    print("| Measurement | Result | Target | Verdict | Notes |")
    print("|---|---|---|---|---|")
    print("| page ready, 1024 x 1024 names | %.0f ms | <= 1000 ms | %s | median of 5: %s ms |"
          % (ready * 1000, met(ready <= 1), ", ".join("%.0f" % (t * 1000) for t in runs)))
    print("| routing report to lit cell | p50 %d ms, p90 %d ms | p50 <= 50 ms | %s | %d reports, max %d ms |"
          % (p50, p90, met(p50 <= 50), len(lat), lat[-1]))
    print("| panel's idle CPU, five browsers | %.2f %% of a core | <= 0.5 %% | %s | over 30 s, status polling only |"
          % (cpu, met(cpu <= 0.5)))
    print("| 100 idle event streams | %.2f %% of a core, +%d KiB resident | - | - | over 30 s, status polling only |"
          % (stream_cpu, stream_kib))
    print("| page and take beside them | %.0f ms | <= 1000 ms | %s | page loaded, then a take answered |"
          % (answered * 1000, met(answered <= 1)))


if __name__ == "__main__":
    main()
