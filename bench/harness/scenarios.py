"""The scenarios. Each runs its tools against the same receiver, alternating which goes first from
one repetition to the next, and returns plain dictionaries for the report."""

import os
import re
import signal
import statistics
import time

from . import procs, proxy, workload
from .workload import GiB, MiB


class Bench:
    """What every scenario needs: the tools, the scratch directory, the size of the pass, and
    where each side runs. Pinned (the CPU-bound scenarios, with two cores or more), the receiver
    runs on the last core and every client (pellorin, curl, openssl) on the first, so that
    client and receiver each hash on a core of their own and the receiver cannot borrow the
    client's core when the client needs little (curl): both tools meet the same receiver.
    Scenarios bound by latency rather than CPU run unpinned: on a busy machine a pinned
    single-threaded client waits for its one core at every request (curl sent small parts five
    times slower that way), which measures the neighbours rather than the tool."""

    def __init__(self, pellorin, scratch, quick):
        self.pellorin = pellorin
        self.scratch = scratch
        self.quick = quick
        cores = os.cpu_count() or 1
        self.client_cpu = 0 if cores >= 2 else None
        self.server_cpu = cores - 1 if cores >= 2 else None
        self.logs = os.path.join(scratch, "logs")
        os.makedirs(self.logs, exist_ok=True)
        self._log_count = 0

    def log(self, what):
        self._log_count += 1
        return os.path.join(self.logs, f"{self._log_count:04d}-{what}.log")

    def path(self, *parts):
        return os.path.join(self.scratch, *parts)

    def server(self, pinned=True):
        return procs.Server(self.pellorin, self.log("serve"),
                            cpu=self.server_cpu if pinned else None)

    def client(self, argv, what, limit_s=600, pinned=True, env=None):
        """Starts a client-side tool (on the client's core when pinned); the caller waits."""
        return procs.Child(argv, self.log(what), limit_s,
                           cpu=self.client_cpu if pinned else None, env=env)

    def upload(self, reservation, connections, rate_kbps=None, limit_s=600, pinned=True,
               lanes=True):
        """Starts `pellorin upload`; the caller waits for it. It writes its lane counters to
        its log (see lane_occupancy); `lanes=False` hashes every part by itself, as before
        parts were hashed together."""
        argv = [self.pellorin, "upload", "--reservation", reservation,
                "--max-connections", connections, "--max-retries", 3]
        if rate_kbps is not None:
            argv += ["--rate-limit", rate_kbps]
        env = {"PELLORIN_MD5_LANES_STATS": "1", "PELLORIN_MD5_LANES": "1" if lanes else "0"}
        return self.client(argv, f"pellorin-{connections}{'' if lanes else '-alone'}", limit_s,
                           pinned, env)

    def curl(self, config, connections, rate_bytes=None, limit_s=600, pinned=True):
        """Starts curl sending the parts of `config`, `connections` at a time."""
        argv = ["curl", "--parallel", "--parallel-immediate", "--parallel-max", connections,
                "--silent", "--show-error", "--no-progress-meter", "--fail", "--config", config]
        if rate_bytes is not None:
            argv += ["--limit-rate", int(rate_bytes)]
        return self.client(argv, f"curl-{connections}", limit_s, pinned)


def run_ok(child, what):
    return procs.require_success(child.wait(), what)


def lane_occupancy(run):
    """The share of lane slots that carried data over the run (0 when nothing was hashed
    together), from the line pellorin writes with PELLORIN_MD5_LANES_STATS set."""
    with open(run.log, errors="replace") as f:
        for line in f:
            found = re.search(r"(\d+) blocks in (\d+) lane slots", line)
            if line.startswith("md5 lanes:") and found:
                blocks, slots = int(found.group(1)), int(found.group(2))
                return blocks / slots if slots else 0.0
    return 0.0


def summary(runs, value):
    """Median, minimum and maximum of `value(run)` over the runs, with the values themselves."""
    values = [value(r) for r in runs]
    return {"median": statistics.median(values), "min": min(values), "max": max(values),
            "values": values}


def alternate(repetition, first, second):
    return (first, second) if repetition % 2 == 0 else (second, first)


class Job:
    """One file and its parts, as pellorin's reservation and as curl's configuration, both aimed
    at `url_for` (a server's or the relay's). The file and the pre-cut parts are made once per
    run and read once, so that they sit in the page cache before anything is timed."""

    def __init__(self, bench, name, size, part_size, url_for, file_name=None, with_curl=True,
                 pinned=True):
        file_name = file_name or name
        self.bench = bench
        self.pinned = pinned
        self.size = size
        self.file = workload.make_file(bench.path(f"{file_name}.bin"), size)
        workload.read_through(self.file)
        self.reservation = workload.write_reservation(
            bench.path(f"{name}.json"), self.file, size, part_size, url_for)
        if with_curl:
            cut = workload.cut_parts(self.file, part_size, bench.path(f"{file_name}-parts"))
            for part in cut:
                workload.read_through(part)
            self.config = workload.write_curl_config(
                bench.path(f"{name}.curl"), self.file, cut, part_size, url_for)

    def start(self, tool, connections, cap=None, limit_s=600):
        """Starts `tool` ("pellorin", "pellorin-alone" without lanes, or "curl") on this job;
        `cap` in bytes per second is the total for pellorin and is shared out per transfer for
        curl, whose limit is per transfer."""
        if tool.startswith("pellorin"):
            return self.bench.upload(self.reservation, connections,
                                     rate_kbps=None if cap is None else cap // 1000,
                                     limit_s=limit_s, pinned=self.pinned,
                                     lanes=tool == "pellorin")
        return self.bench.curl(self.config, connections,
                               rate_bytes=None if cap is None else cap / connections,
                               limit_s=limit_s, pinned=self.pinned)


# --- the single-core MD5 limit ------------------------------------------------------------------

def md5_speed(bench, elapsed=False):
    """Bytes per second of one core hashing MD5 in 1 MiB blocks (`openssl speed`, EVP). By CPU
    time, the machine's limit; with `elapsed`, by wall time, what one thread got under the
    machine's current load."""
    argv = ["openssl", "speed", "-evp", "md5", "-bytes", 1048576, "-seconds",
            1 if bench.quick else 3, "-mr"]
    if elapsed:
        argv.append("-elapsed")
    run = procs.require_success(bench.client(argv, "openssl-speed").wait(), "openssl speed")
    with open(run.log) as f:
        for line in f:
            if line.startswith("+F:"):
                return float(line.strip().split(":")[-1])
    raise RuntimeError(f"openssl speed printed no result:\n{run.tail()}")


# --- 1 and 2: throughput, and client CPU per GiB -----------------------------------------------

def throughput(bench, size, part_size, connection_counts, repetitions):
    """Each connection count, pellorin against curl; at one connection also pellorin hashing
    every part by itself (the data path before parts were hashed together), the baseline a lone
    part must keep up with."""
    runs = {n: {"pellorin": [], "curl": [], "pellorin-alone": []} for n in connection_counts}
    digests = []
    with bench.server() as server:
        job = Job(bench, "throughput", size, part_size, server.url)
        for repetition in range(repetitions):
            for index, n in enumerate(connection_counts):
                tools = list(alternate(repetition + index, "pellorin", "curl"))
                if n == 1:
                    tools.insert(repetition % 3, "pellorin-alone")
                for tool in tools:
                    before = server.cpu_seconds()
                    run = run_ok(job.start(tool, n), f"{tool} with {n} connections")
                    run.receiver_cpu_s = server.cpu_seconds() - before
                    runs[n][tool].append(run)
            digests.append(run_ok(
                bench.client(["openssl", "dgst", "-md5", job.file], "openssl-dgst"),
                "openssl dgst"))
    points = []
    for n in connection_counts:
        point = {"connections": n,
                 "lane_occupancy": summary(runs[n]["pellorin"], lane_occupancy)}
        for tool in ("pellorin", "curl", "pellorin-alone"):
            if not runs[n][tool]:
                continue
            point[tool] = {
                "bytes_per_s": summary(runs[n][tool], lambda r: size / r.wall_s),
                "cpu_s_per_gib": summary(runs[n][tool], lambda r: r.cpu_s / (size / GiB)),
                "receiver_cpu_s_per_gib": summary(
                    runs[n][tool], lambda r: r.receiver_cpu_s / (size / GiB)),
                "max_rss_bytes": summary(runs[n][tool], lambda r: r.max_rss_bytes),
            }
        points.append(point)
    return {
        "file_bytes": size,
        "part_bytes": part_size,
        "repetitions": repetitions,
        "points": points,
        "md5_floor_cpu_s_per_gib": summary(digests, lambda r: r.cpu_s / (size / GiB)),
    }


# --- 3: peak memory ---------------------------------------------------------------------------

def memory(bench, size, part_size, connections):
    with bench.server() as server:
        job = Job(bench, "memory", size, part_size, server.url, with_curl=False)
        run = run_ok(job.start("pellorin", connections), "pellorin (memory)")
    return {"file_bytes": size, "part_bytes": part_size, "connections": connections,
            "max_rss_bytes": run.max_rss_bytes, "bytes_per_s": size / run.wall_s}


# --- 4: rate limit ----------------------------------------------------------------------------

def rate_limit(bench, caps, seconds, part_size, connections):
    results = []
    with bench.server(pinned=False) as server:
        relay = proxy.CountingRelay(server.port)
        try:
            for index, cap in enumerate(caps):
                size = int(cap * seconds)
                job = Job(bench, f"rate-{cap}", size, part_size, relay.url, pinned=False)
                result = {"cap_bytes_per_s": cap, "file_bytes": size,
                          "part_bytes": part_size, "connections": connections}
                for tool in alternate(index, "pellorin", "curl"):
                    relay.reset()
                    child = job.start(tool, connections, cap=cap, limit_s=10 * seconds + 60)
                    run = run_ok(child, f"{tool} under a rate limit")
                    result[tool] = wire_figures(relay.slots(), cap, run)
                    if tool == "pellorin":
                        # The first part of a file to start is sent without the limiter, by
                        # design; these figures leave that request out.
                        result[tool]["without_unthrottled_part"] = wire_figures(
                            relay.slots(skip_first_finished=True), cap, run)
                results.append(result)
        finally:
            relay.stop()
    return results


def wire_figures(slots, cap, run):
    """Average rate over the sending period and the extreme one-second windows, relative to the
    cap, from the relay's 10 ms slots."""
    span_s = len(slots) * proxy.SLOT_S
    sums = proxy.windows(slots)
    return {
        "wire_bytes": sum(slots),
        "sending_s": span_s,
        "average_bytes_per_s": sum(slots) / span_s if span_s else 0.0,
        "average_of_cap": sum(slots) / span_s / cap if span_s else 0.0,
        "max_window_of_cap": max(sums) / cap if sums else 0.0,
        "min_window_of_cap": min(sums) / cap if sums else 0.0,
        "cpu_s": run.cpu_s,
    }


# --- 5: many small parts ----------------------------------------------------------------------

def small_parts(bench, count, part_size, connections, repetitions):
    runs = {"pellorin": [], "curl": []}
    with bench.server(pinned=False) as server:
        job = Job(bench, "small", count * part_size, part_size, server.url, pinned=False)
        for repetition in range(repetitions):
            for tool in alternate(repetition, "pellorin", "curl"):
                before = server.cpu_seconds()
                run = run_ok(job.start(tool, connections), f"{tool} (small parts)")
                run.receiver_cpu_s = server.cpu_seconds() - before
                runs[tool].append(run)
    result = {"parts": count, "part_bytes": part_size, "connections": connections,
              "repetitions": repetitions}
    for tool, tool_runs in runs.items():
        result[tool] = {
            "parts_per_s": summary(tool_runs, lambda r: count / r.wall_s),
            "cpu_ms_per_part": summary(tool_runs, lambda r: 1000 * r.cpu_s / count),
            "receiver_cpu_ms_per_part": summary(
                tool_runs, lambda r: 1000 * r.receiver_cpu_s / count),
        }
    return result


# --- 6: cancellation latency ------------------------------------------------------------------

def cancellation(bench, size, part_size, connections, repetitions, delay_s=0.4):
    """SIGINT `delay_s` into an upload of the throughput file; the time until the process is
    gone. curl, interrupted the same way, is the peer."""
    latencies = {"pellorin": [], "curl": []}
    exit_codes = {"pellorin": [], "curl": []}
    with bench.server(pinned=False) as server:
        job = Job(bench, "cancel", size, part_size, server.url, file_name="throughput",
                  pinned=False)
        for repetition in range(repetitions):
            for tool in alternate(repetition, "pellorin", "curl"):
                child = job.start(tool, connections, limit_s=60)
                time.sleep(delay_s)
                signalled = time.monotonic()
                child.signal(signal.SIGINT)
                run = child.wait()
                exit_codes[tool].append(run.exit_code)
                if run.exit_code != 0:  # 0: done before the signal, no latency to measure
                    latencies[tool].append(child.started + run.wall_s - signalled)
    result = {"file_bytes": size, "connections": connections, "signal_after_s": delay_s}
    for tool, values in latencies.items():
        if not values:
            raise RuntimeError(f"{tool} finished before every SIGINT: no latency measured")
        result[tool] = {"latency_s": {"median": statistics.median(values), "max": max(values),
                                      "values": values},
                        "exit_codes": exit_codes[tool]}
    return result
