#!/usr/bin/env python3
"""The whole-process figures of the bootstrap, each against its floor.

Every figure is the median of several runs set against a baseline measured in
the same run of this script, on the same tree, a few seconds apart:

  1  ready path in process      (read from quor-bench-ready's JSON report)
  2  ready path, whole process  quor-stdlib ensure and status --check
                                                       vs  a program printing a line
  3  collection, 20,000 units   walk + header test   vs  find | xargs cat
  4  cold ensure, 20,000 units  real precompiler     vs  cp -r; and 2 jobs vs 1
  5  16 processes at once       one build, wall time vs  one process alone
  6  pruning 5 x 20,000 files   removeOlderCacheVersions vs rm -rf
  7  scaling                    cold ensure at 1,000 / 20,000 / 100,000 units
  8  incremental builds         one unit changed     vs  find | xargs sha256sum;
                                resume after Ctrl-C at half way vs a cold build;
                                A, then B, then A again: units compiled the third time;
                                2 jobs vs 1 on a cold build (never slower)
  9  quor-stdlib prune          45,600 files / 221 MiB, listing included, vs rm -rf

It prints the machine, one line per measurement, and a table of ratios with
their goals. Results go to <build dir>/bench-results.json and .md; the scaling
plot to <build dir>/scaling.png unless --plot names another file.

Run through `make bench`, which builds the Release tree first. Trees are
generated with bench/generate_library.py below --work-dir (default: a
directory in the system's temporary directory) and removed at the end unless
--keep is given.
"""

import argparse
import json
import os
import re
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)


def layout_names():
    """The cache layout's names, read from the header that owns them
    (compiler/CacheLayout.h), so that the fake caches made here can never
    spell a name differently from the compiler."""
    with open(os.path.join(REPO, "compiler", "CacheLayout.h")) as stream:
        text = stream.read()
    names = dict(re.findall(r'inline constexpr std::string_view (\w+) = "([^"]*)";', text))
    for name in ("libraryCacheName", "objectExtension", "firstLaunchDirectory",
                 "markerFileName"):
        if name not in names:
            sys.exit(f"compiler/CacheLayout.h does not name {name}")
    return names


LAYOUT = layout_names()
LIB = LAYOUT["libraryCacheName"]
OBJECT_EXTENSION = LAYOUT["objectExtension"]
FIRST_LAUNCH = LAYOUT["firstLaunchDirectory"]
MARKER = LAYOUT["markerFileName"]
SEED = 1
VERSION = "0.1.6"

GOALS = {
    "1a": ("isRequired() on a ready cache vs two plain file reads", "<=", 1.5),
    "1b": ("ensure() on a ready cache vs two plain file reads", "<=", 1.5),
    "2": ("quor-stdlib ensure, ready cache vs a one-line C++ program", "<=", 1.3),
    "2b": ("quor-stdlib status --check, ready cache vs the same program", "<=", 1.3),
    "1c": ("isRequired() served by a ready system cache vs two plain file reads", "<=", 1.5),
    "2c": ("quor-stdlib ensure, fresh user served by the shipped system cache vs the same program",
           "<=", 1.3),
    "3": ("collection of 20,000 units vs find | xargs cat", "<=", 1.0),
    "4a": ("cold ensure of 20,000 units vs cp -r", "<=", 1.5),
    "4b": ("speed-up of 2 jobs over 1 (cold ensure, 20,000 units)", ">=", 1.7),
    "5": ("16 processes on a cold cache vs one process alone", "<=", 1.15),
    "6": ("removeOlderCacheVersions, 5 x 20,000 files vs rm -rf", "<=", 1.1),
    "7": ("scaling: time per unit at 100,000 vs at 20,000 units", "<=", 1.2),
    "8a": ("ensure after one unit changed vs find | xargs sha256sum", "<=", 1.5),
    "8b": ("ensure resuming a build stopped half way vs a cold build", "<=", 0.6),
    "8c": ("units compiled by the build of A after A, then B", "<=", 0),
    "8d": ("2 jobs against 1 on a cold build (20,000 units)", ">=", 1.0),
    "9": ("quor-stdlib prune, 45,600 files / 221 MiB vs rm -rf", "<=", 1.2),
}


def log(message):
    print(message, flush=True)


def run(command, **kwargs):
    return subprocess.run(command, check=True, **kwargs)


def shell_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def machine():
    model = "unknown"
    try:
        with open("/proc/cpuinfo") as stream:
            for line in stream:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return {
        "nproc": os.cpu_count(),
        "cpu": model,
        "kernel": platform.release(),
        "load": os.getloadavg(),
    }


def filesystem_of(path):
    out = subprocess.run(["df", "--output=fstype,source", path], capture_output=True,
                         text=True).stdout.split("\n")
    return " ".join(out[1].split()) if len(out) > 1 else "unknown"


class Bench:
    def __init__(self, args):
        self.args = args
        self.build = os.path.abspath(args.build_dir)
        self.tool = os.path.join(self.build, "tools", "quor-stdlib", "quor-stdlib")
        self.driver = os.path.join(self.build, "bench", "quor-bench-driver")
        self.hello = os.path.join(self.build, "bench", "quor-bench-hello")
        self.work = os.path.abspath(args.work_dir)
        self.results = {"figures": {}, "measurements": {}}
        self.quick = args.quick
        for binary in (self.tool, self.driver, self.hello):
            if not os.access(binary, os.X_OK):
                sys.exit(f"workload: {binary} is missing; run `make bench`")

    # -- helpers -----------------------------------------------------------

    def library(self, units):
        """The generated library of `units` units, made once per work dir."""
        root = os.path.join(self.work, f"lib-{units}")
        summary = os.path.join(self.work, f"lib-{units}.json")
        if os.path.isdir(root) and os.path.isfile(summary):
            with open(summary) as stream:
                return root, json.load(stream)
        if units >= 50000:
            free = shutil.disk_usage(self.work).free
            need = units * 4096 * 3  # sources, objects and slack
            if free < need:
                sys.exit(f"workload: {free >> 20} MiB free below {self.work}, "
                         f"{need >> 20} MiB needed for {units} units")
        log(f"  generating {units} units (seed {SEED}) ...")
        out = run([sys.executable, os.path.join(HERE, "generate_library.py"), "--units",
                   str(units), "--seed", str(SEED), "--out", root, "--force"],
                  capture_output=True, text=True).stdout
        data = json.loads(out)
        with open(summary, "w") as stream:
            json.dump(data, stream)
        return root, data

    def warm(self, root):
        """Reads every file of `root` once, so that timings start from a warm page cache."""
        run(f"find {shell_quote(root)} -type f -print0 | xargs -0 cat > /dev/null", shell=True)

    def hyperfine_times(self, command, runs, warmup=1, prepare=None, shell=True, env=None):
        """The wall times (seconds) of `runs` runs of `command`, with `env` added
        to the environment."""
        export = os.path.join(self.work, "hyperfine.json")
        line = ["hyperfine", "--style", "none", "--runs", str(runs), "--warmup", str(warmup),
                "--export-json", export]
        if not shell:
            line.append("-N")
        if prepare:
            line += ["--prepare", prepare]
        line.append(command)
        run(line, stdout=subprocess.DEVNULL, env=dict(os.environ, **(env or {})))
        with open(export) as stream:
            return json.load(stream)["results"][0]["times"]

    def record(self, name, times):
        """Records and prints the median of `times`, and returns it."""
        median = statistics.median(times)
        self.results["measurements"][name] = {"median_s": median, "runs": len(times),
                                              "min_s": min(times), "max_s": max(times)}
        log(f"  {name:<44} median {format_seconds(median):>10}  "
            f"(min {format_seconds(min(times))}, max {format_seconds(max(times))}, {len(times)} runs)")
        return median

    def hyperfine(self, name, command, runs, warmup=1, prepare=None, shell=True):
        """Median wall time (seconds) of `command` over `runs` runs."""
        return self.record(name, self.hyperfine_times(command, runs, warmup, prepare, shell))

    def interleaved(self, commands, runs, rounds=10, warmup=20):
        """Medians of several commands (name -> command line, or a pair of a
        command line and the variables to add to its environment) measured in
        turns.

        Each round runs every command runs/rounds times, one after the other,
        so that a change of load on a shared machine falls on all of them alike
        instead of on whichever command happened to run at the time.
        """
        times = {name: [] for name in commands}
        per_round = max(1, runs // rounds)
        for index in range(rounds):
            for name, command in commands.items():
                command, env = command if isinstance(command, tuple) else (command, None)
                times[name] += self.hyperfine_times(command, per_round,
                                                    warmup=warmup if index == 0 else 3,
                                                    shell=False, env=env)
        return {name: self.record(name, values) for name, values in times.items()}

    def figure(self, key, measured, baseline, ratio, detail=""):
        label, sense, goal = GOALS[key]
        holds = ratio <= goal if sense == "<=" else ratio >= goal
        self.results["figures"][key] = {
            "label": label, "measured": measured, "baseline": baseline, "ratio": ratio,
            "goal": f"{sense} {goal}", "holds": holds, "detail": detail,
        }

    def tool_command(self, library, cache, *extra):
        return " ".join([shell_quote(self.tool), "--stdlib", shell_quote(library), "--cache-root",
                         shell_quote(cache), "ensure"] + list(extra))

    def timed_processes(self, commands):
        """Starts `commands` together; returns (wall seconds, outputs, peak RSS KiB, statuses)."""
        outputs = []
        processes = []
        start = time.monotonic()
        for index, command in enumerate(commands):
            out = open(os.path.join(self.work, f"process-{index}.out"), "w+")
            outputs.append(out)
            processes.append(subprocess.Popen(command, stdout=out, stderr=subprocess.STDOUT))
        statuses = []
        peak = 0
        for process in processes:
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            statuses.append(process.returncode)
            peak = max(peak, usage.ru_maxrss)
        wall = time.monotonic() - start
        texts = []
        for out in outputs:
            out.seek(0)
            texts.append(out.read())
            out.close()
        return wall, texts, peak, statuses

    def cold_cache(self, cache):
        shutil.rmtree(cache, ignore_errors=True)
        run(["sync"])

    # -- figures -----------------------------------------------------------

    def figure1(self):
        log("\n[1] ready path in process (Google Benchmark medians)")
        path = self.args.ready_json
        if not path:
            path = os.path.join(self.build, "ready-path.json")
            run([os.path.join(self.build, "bench", "quor-bench-ready"),
                 "--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true",
                 "--benchmark_report_aggregates_only=true",
                 f"--benchmark_out={path}", "--benchmark_out_format=json"],
                stdout=subprocess.DEVNULL)
        with open(path) as stream:
            report = json.load(stream)
        medians = {}
        cpu = {}
        for entry in report["benchmarks"]:
            if entry.get("aggregate_name") == "median":
                scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[entry["time_unit"]]
                medians[entry["run_name"]] = entry["real_time"] * scale
                cpu[entry["run_name"]] = entry["cpu_time"] * scale
        for name, value in medians.items():
            self.results["measurements"][name] = {"median_s": value}
            log(f"  {name:<44} median {format_seconds(value):>10}")
        floor = medians["BM_Floor_TwoFileReads"]
        # On a loaded machine the wall time mostly waits for a core; the CPU
        # time (system calls included) is shown beside it.
        cpu_floor = cpu["BM_Floor_TwoFileReads"]
        self.figure("1a", medians["BM_IsRequired_Ready"], floor,
                    medians["BM_IsRequired_Ready"] / floor,
                    f"floor + stat of the root: {format_seconds(medians['BM_Floor_TwoFileReadsAndStat'])}; "
                    f"CPU time {format_seconds(cpu['BM_IsRequired_Ready'])} against "
                    f"{format_seconds(cpu_floor)} ({cpu['BM_IsRequired_Ready'] / cpu_floor:.2f}x)")
        self.figure("1b", medians["BM_Ensure_Ready"], floor, medians["BM_Ensure_Ready"] / floor,
                    f"CPU time {format_seconds(cpu['BM_Ensure_Ready'])} against "
                    f"{format_seconds(cpu_floor)} ({cpu['BM_Ensure_Ready'] / cpu_floor:.2f}x)")
        chosen = medians["BM_ChooseLayerAndIsRequired_FreshUser"]
        layered = medians["BM_Floor_LayeredLookup"]
        self.figure("1c", medians["BM_IsRequired_SystemLayer"], floor,
                    medians["BM_IsRequired_SystemLayer"] / floor,
                    f"the layer choice with it, once per start: {format_seconds(chosen)} against "
                    f"{format_seconds(layered)} for the fingerprint and both markers read "
                    f"({chosen / layered:.1f}x)")

    def figure2(self):
        log("\n[2] ready path, whole process")
        library, _ = self.library(1000)
        cache = os.path.join(self.work, "cache-ready")
        self.cold_cache(cache)
        run([self.tool, "--stdlib", library, "--cache-root", cache, "--quiet", "ensure"])
        runs = 100 if self.quick else 300
        check = " ".join([shell_quote(self.tool), "--stdlib", shell_quote(library),
                          "--cache-root", shell_quote(cache), "status", "--check"])
        # A fresh user served by a system cache, which the run must leave
        # without a cache of their own: the shipped library, as the package
        # has it, and for the detail the 1,000 units above. The system cache
        # is built into another root with no layer under it, as the package's is.
        shipped = os.path.join(os.path.dirname(HERE), "stdlib")
        fresh = os.path.join(self.work, "cache-fresh-user")
        systems = {}
        for name, source in (("shipped", shipped), ("1000", library)):
            systems[name] = os.path.join(self.work, f"cache-system-{name}")
            self.cold_cache(systems[name])
            run([self.tool, "--stdlib", source, "--cache-root", systems[name], "--quiet", "ensure"],
                env=dict(os.environ, QUOR_SYSTEM_CACHE_DIR=""))
        medians = self.interleaved({
            "quor-stdlib ensure (ready)": self.tool_command(library, cache),
            "quor-stdlib status --check (ready)": check,
            "quor-stdlib ensure (fresh user, system cache)":
                (self.tool_command(shipped, fresh), {"QUOR_SYSTEM_CACHE_DIR": systems["shipped"]}),
            "the same, 1,000-unit system cache":
                (self.tool_command(library, fresh), {"QUOR_SYSTEM_CACHE_DIR": systems["1000"]}),
            "one-line C++ program": shell_quote(self.hello),
        }, runs)
        if os.path.exists(fresh):
            raise SystemExit(f"the system cache did not serve the fresh user: {fresh} was created")
        hello = medians["one-line C++ program"]
        tool = medians["quor-stdlib ensure (ready)"]
        status = medians["quor-stdlib status --check (ready)"]
        served = medians["quor-stdlib ensure (fresh user, system cache)"]
        large = medians["the same, 1,000-unit system cache"]
        self.figure("2", tool, hello, tool / hello)
        self.figure("2b", status, hello, status / hello)
        self.figure("2c", served, hello, served / hello,
                    f"the shipped library; with 1,000 units in the system cache "
                    f"{format_seconds(large)} ({large / hello:.2f}x): one status per object")
        shutil.rmtree(cache, ignore_errors=True)
        for system in systems.values():
            shutil.rmtree(system, ignore_errors=True)

    def figure3(self):
        log("\n[3] collection (walk + header test) over 20,000 units, warm page cache")
        library, data = self.library(20000)
        cache = os.path.join(self.work, "cache-collect")
        runs = 5 if self.quick else 11
        self.warm(library)
        collect = self.hyperfine(
            "collect: ensure() with a no-op precompiler",
            f"{shell_quote(self.driver)} collect {shell_quote(library)} {shell_quote(cache)}",
            runs, warmup=2, prepare=f"rm -rf {shell_quote(cache)}")
        baseline = self.hyperfine(
            "find | xargs cat",
            f"find {shell_quote(library)} -type f -name '*.qr' -print0 | xargs -0 cat > /dev/null",
            runs, warmup=2)
        out = run([self.driver, "collect", library, cache + "-check"], capture_output=True,
                  text=True).stdout.strip()
        shutil.rmtree(cache, ignore_errors=True)
        shutil.rmtree(cache + "-check", ignore_errors=True)
        expected = f"collected {data['compiled_units']} units"
        if not out.startswith(expected):
            sys.exit(f"workload: the driver said '{out}', expected '{expected}'")
        self.figure("3", collect, baseline, collect / baseline, out)

    def figure4(self):
        log("\n[4] cold ensure over 20,000 units, real precompiler")
        library, _ = self.library(20000)
        cache = os.path.join(self.work, "cache-cold")
        copy = os.path.join(self.work, "copy")
        runs = 3 if self.quick else 5
        self.warm(library)
        prepare = f"rm -rf {shell_quote(cache)} && sync"
        two = self.hyperfine("cold quor-stdlib ensure --jobs 2",
                             self.tool_command(library, cache, "--jobs", "2"), runs, warmup=1,
                             prepare=prepare)
        one = self.hyperfine("cold quor-stdlib ensure --jobs 1",
                             self.tool_command(library, cache, "--jobs", "1"), runs, warmup=1,
                             prepare=prepare)
        cp = self.hyperfine("cp -r of the library", f"cp -r {shell_quote(library)} {shell_quote(copy)}",
                            runs, warmup=1, prepare=f"rm -rf {shell_quote(copy)} && sync")
        cp_sync = self.hyperfine("cp -r of the library, then sync -f (not a goal)",
                                 f"cp -r {shell_quote(library)} {shell_quote(copy)} && sync -f {shell_quote(copy)}",
                                 runs, warmup=1, prepare=f"rm -rf {shell_quote(copy)} && sync")
        shutil.rmtree(copy, ignore_errors=True)
        shutil.rmtree(cache, ignore_errors=True)
        self.figure("4a", two, cp, two / cp, f"cp -r + sync -f: {format_seconds(cp_sync)}")
        self.figure("4b", one, two, one / two, "measured: 1 job, baseline: 2 jobs")

    def figure5(self):
        log("\n[5] 16 processes together on a cold cache vs one alone (20,000 units)")
        library, _ = self.library(20000)
        cache = os.path.join(self.work, "cache-group")
        runs = 2 if self.quick else 3
        self.warm(library)
        command = [self.tool, "--stdlib", library, "--cache-root", cache, "--json", "ensure"]
        singles, groups, builds_seen = [], [], []
        for _ in range(runs):
            self.cold_cache(cache)
            wall, texts, _, statuses = self.timed_processes([command])
            if statuses != [0] or count_builds(texts) != 1:
                sys.exit(f"workload: the single build failed: {texts[0][-500:]}")
            singles.append(wall)
            self.cold_cache(cache)
            wall, texts, _, statuses = self.timed_processes([command] * 16)
            if any(statuses):
                sys.exit(f"workload: a process of the group failed: {statuses}")
            builds_seen.append(count_builds(texts))
            groups.append(wall)
        shutil.rmtree(cache, ignore_errors=True)
        single, group = statistics.median(singles), statistics.median(groups)
        for name, times in (("one process alone", singles), ("16 processes together", groups)):
            self.results["measurements"][name] = {"median_s": statistics.median(times),
                                                  "runs": len(times)}
            log(f"  {name:<44} median {format_seconds(statistics.median(times)):>10}  "
                f"({', '.join(format_seconds(t) for t in times)})")
        log(f"  builds per group run: {builds_seen}")
        self.figure("5", group, single, group / single,
                    f"builds per group run: {builds_seen} (must all be 1)")
        if any(count != 1 for count in builds_seen):
            self.results["figures"]["5"]["holds"] = False

    def figure6(self):
        log("\n[6] pruning 5 old versions of 20,000 files each")
        library, _ = self.library(20000)
        template = os.path.join(self.work, "prune-template")
        root = os.path.join(self.work, "prune-root")
        old = [f"0.1.{k}" for k in range(5)]
        if not os.path.isdir(template):
            # Each old version holds 20,000 object-sized files in the library's
            # folders, as a compiler's cache does, and its first-launch state.
            units = sorted(os.path.relpath(os.path.join(d, f), library)
                           for d, _, files in os.walk(library) for f in files if f.endswith(".qr"))
            payload = b"QUOR-OBJECT\t1\n" + b"type\t1\tclass\tpublic\n" * 40
            for version in old:
                for relative in units:
                    path = os.path.join(template, version, LIB, relative[:-3] + OBJECT_EXTENSION)
                    os.makedirs(os.path.dirname(path), exist_ok=True)
                    with open(path, "wb") as stream:
                        stream.write(payload)
                state = os.path.join(template, FIRST_LAUNCH, version, LIB)
                os.makedirs(state)
                with open(os.path.join(state, MARKER), "w") as stream:
                    stream.write("QUOR_STANDARD_LIBRARY_CACHE\nformat=1\n")
            os.makedirs(os.path.join(template, VERSION, LIB))
        runs = 3
        # Hard links: a fresh copy per run in a second instead of a minute. Both
        # sides then unlink names without freeing inodes, which leaves out the
        # same kernel work on each side and makes the ratio, if anything, stricter.
        prepare = f"rm -rf {shell_quote(root)} && cp -al {shell_quote(template)} {shell_quote(root)} && sync"
        prune = self.hyperfine("removeOlderCacheVersions", f"{shell_quote(self.driver)} prune {shell_quote(root)}",
                               runs, warmup=0, prepare=prepare)
        left = sorted(os.listdir(root))
        targets = " ".join(shell_quote(os.path.join(root, v)) + " " +
                           shell_quote(os.path.join(root, FIRST_LAUNCH, v)) for v in old)
        rm = self.hyperfine("rm -rf of the same directories", f"rm -rf {targets}", runs,
                            warmup=0, prepare=prepare)
        shutil.rmtree(root, ignore_errors=True)
        shutil.rmtree(template, ignore_errors=True)
        if left != [FIRST_LAUNCH, VERSION]:
            sys.exit(f"workload: pruning left {left}")
        self.figure("6", prune, rm, prune / rm)

    def alternate(self, commands, runs, prepare):
        """Median wall times (seconds) of `commands` ({name: argv}), run in turn
        `runs` times, each after `prepare` (a shell line, not timed). Taking
        turns, rather than all runs of one and then the other, gives a change
        of load on the machine to both sides alike."""
        times = {name: [] for name in commands}
        for _ in range(runs):
            for name, argv in commands.items():
                run(prepare, shell=True)
                start = time.monotonic()
                run(argv, stdout=subprocess.DEVNULL)
                times[name].append(time.monotonic() - start)
        medians = {}
        for name, values in times.items():
            median = statistics.median(values)
            self.results["measurements"][name] = {"median_s": median, "runs": len(values),
                                                  "min_s": min(values), "max_s": max(values)}
            log(f"  {name:<44} median {format_seconds(median):>10}  "
                f"(min {format_seconds(min(values))}, max {format_seconds(max(values))}, "
                f"{len(values)} runs)")
            medians[name] = median
        return medians

    def figure9(self):
        log("\n[9] quor-stdlib prune of 2 old versions, 45,600 files and 221 MiB in all")
        template = os.path.join(self.work, "prune-tool-template")
        root = os.path.join(self.work, "prune-tool-root")
        old = ["0.1.3", "0.1.4"]
        if not os.path.isdir(template):
            # A cache's shape: 100 objects to a folder, 20 folders to a
            # package. Three in four objects fit one 4 KiB block, the others
            # take two, so that 45,600 files take 221 MiB as in the report
            # this figure answers.
            for version in old:
                for index in range(22800):
                    folder = os.path.join(template, version, LIB, f"pkg{index // 2000:02d}",
                                          f"sub{index // 100 % 20:02d}")
                    if index % 100 == 0:
                        os.makedirs(folder)
                    with open(os.path.join(folder, f"Unit{index:05d}{OBJECT_EXTENSION}"), "wb") as stream:
                        stream.write(b"o" * (3000 if index % 100 < 77 else 6000))
                state = os.path.join(template, FIRST_LAUNCH, version, LIB)
                os.makedirs(state)
                with open(os.path.join(state, MARKER), "w") as stream:
                    stream.write("QUOR_STANDARD_LIBRARY_CACHE\nformat=1\n")
            os.makedirs(os.path.join(template, VERSION, LIB))
        runs = 3 if self.quick else 7
        # Hard links, as in figure 6: a fresh copy per run in seconds, and
        # neither side frees the blocks, which leaves the size walk a larger
        # share of the tool's time than on a real cache.
        prepare = f"rm -rf {shell_quote(root)} && cp -al {shell_quote(template)} {shell_quote(root)} && sync"
        targets = [path for v in old
                   for path in (os.path.join(root, v), os.path.join(root, FIRST_LAUNCH, v))]
        medians = self.alternate(
            {"quor-stdlib prune (listing included)":
                 [self.tool, "--cache-root", root, "prune"],
             "rm -rf of the same directories": ["rm", "-rf"] + targets},
            runs, prepare)
        run(prepare, shell=True)
        listing = run([self.tool, "--cache-root", root, "--json", "prune", "--dry-run"],
                      capture_output=True, text=True).stdout
        listed = json.loads(listing)["olderVersionsBytes"]
        run([self.tool, "--cache-root", root, "--quiet", "prune"])
        left = sorted(os.listdir(root))
        shutil.rmtree(root, ignore_errors=True)
        if not self.args.keep:
            shutil.rmtree(template, ignore_errors=True)
        if left != [FIRST_LAUNCH, VERSION]:
            sys.exit(f"workload: prune left {left}")
        prune = medians["quor-stdlib prune (listing included)"]
        rm = medians["rm -rf of the same directories"]
        self.figure("9", prune, rm, prune / rm, f"the tool listed {listed / 2**20:.1f} MiB")

    def figure7(self):
        log("\n[7] scaling of a cold ensure (default job count)")
        sizes = [1000, 20000] if self.quick else [1000, 20000, 100000]
        cache = os.path.join(self.work, "cache-scale")
        rows = []
        for units in sizes:
            library, data = self.library(units)
            self.warm(library)
            runs = 2 if units >= 100000 or self.quick else 3
            walls, peaks = [], []
            for _ in range(runs):
                self.cold_cache(cache)
                wall, texts, peak, statuses = self.timed_processes(
                    [[self.tool, "--stdlib", library, "--cache-root", cache, "--quiet", "ensure"]])
                if statuses != [0]:
                    sys.exit(f"workload: cold ensure of {units} units failed: {texts[0][-500:]}")
                walls.append(wall)
                peaks.append(peak)
            shutil.rmtree(cache, ignore_errors=True)
            row = {"units": units, "compiled": data["compiled_units"], "bytes": data["bytes"],
                   "median_s": statistics.median(walls), "peak_rss_kib": max(peaks),
                   "runs": walls}
            rows.append(row)
            log(f"  {units:>7} units ({data['compiled_units']} compiled, {data['bytes'] >> 20} MiB): "
                f"median {format_seconds(row['median_s'])}, peak RSS {row['peak_rss_kib'] >> 10} MiB")
            if units >= 100000 and not self.args.keep:
                shutil.rmtree(library, ignore_errors=True)
                os.remove(os.path.join(self.work, f"lib-{units}.json"))
        self.results["scaling"] = rows
        by_units = {row["units"]: row for row in rows}
        largest = max(by_units)
        per_unit = {u: r["median_s"] / u for u, r in by_units.items()}
        ratio = per_unit[largest] / per_unit[20000]
        fit = linear_fit([(r["units"], r["median_s"]) for r in rows])
        self.results["scaling_fit"] = fit
        self.figure("7", per_unit[largest], per_unit[20000], ratio,
                    f"per unit at {largest}: {format_seconds(per_unit[largest])}; "
                    f"fit t = {fit['a']:.3f} s + {fit['b'] * 1e6:.1f} us/unit, R^2 {fit['r2']:.4f}")
        self.plot(rows, fit)

    def figure8(self):
        log("\n[8] incremental builds over 20,000 units")
        source, _ = self.library(20000)
        library = os.path.join(self.work, "lib-incremental")
        shutil.rmtree(library, ignore_errors=True)
        shutil.copytree(source, library, symlinks=True)
        cache = os.path.join(self.work, "cache-incremental")
        self.cold_cache(cache)
        runs = 5 if self.quick else 11
        self.warm(library)
        run([self.tool, "--stdlib", library, "--cache-root", cache, "--quiet", "ensure"])

        # 8a: one unit edited and a new fingerprint, as a release of one fix
        # would bring; every run edits anew.
        unit = os.path.join(library, "Prelude.qr")
        fingerprint = os.path.join(library, ".quor-stdlib-fingerprint")
        prepare = (f"printf '// %s\\n' \"$(date +%s%N)\" >> {shell_quote(unit)} && "
                   f"printf '%064x\\n' \"$(date +%s%N)\" > {shell_quote(fingerprint)}")
        incremental = self.hyperfine("ensure after one unit changed",
                                     self.tool_command(library, cache, "--quiet"), runs,
                                     warmup=1, prepare=prepare)
        hashing = self.hyperfine(
            "find | xargs sha256sum",
            f"find {shell_quote(library)} -type f -name '*.qr' -print0 | xargs -0 sha256sum > /dev/null",
            runs, warmup=1)
        out = run([self.tool, "--stdlib", library, "--cache-root", cache, "--json", "ensure",
                   "--force"], capture_output=True, text=True).stdout
        forced = result_event(out)
        self.figure("8a", incremental, hashing, incremental / hashing,
                    f"a forced build of the same tree compiled {forced.get('compiled')} and "
                    f"reused {forced.get('reused')}")

        # 8b: Ctrl-C once half the units are reported, then the same ensure again.
        tries = 3 if self.quick else 5
        resumed, colds, kept = [], [], []
        for _ in range(tries):
            self.cold_cache(cache)
            start = time.monotonic()
            run([self.tool, "--stdlib", library, "--cache-root", cache, "--quiet", "ensure"])
            colds.append(time.monotonic() - start)
            self.cold_cache(cache)
            process = subprocess.Popen([self.tool, "--stdlib", library, "--cache-root", cache,
                                        "--json", "ensure"], stdout=subprocess.PIPE, text=True)
            for line in process.stdout:
                event = json.loads(line)
                total = event.get("total", 0)
                if event.get("event") == "progress" and total > 0 and event["completed"] * 2 >= total:
                    process.send_signal(2)
                    break
            process.stdout.read()
            if process.wait() != 130:
                sys.exit("workload: the build to be stopped half way was not interrupted")
            run(["sync"])
            start = time.monotonic()
            out = run([self.tool, "--stdlib", library, "--cache-root", cache, "--json", "ensure"],
                      capture_output=True, text=True).stdout
            resumed.append(time.monotonic() - start)
            kept.append(result_event(out).get("reused"))
        cold = statistics.median(colds)
        resume = statistics.median(resumed)
        for name, times in (("cold ensure", colds), ("ensure resuming from half way", resumed)):
            self.results["measurements"][name] = {"median_s": statistics.median(times),
                                                  "runs": len(times)}
            log(f"  {name:<44} median {format_seconds(statistics.median(times)):>10}  "
                f"({', '.join(format_seconds(t) for t in times)})")
        self.figure("8b", resume, cold, resume / cold, f"objects kept from the stopped build: {kept}")

        # 8c: library A, then B (a tenth of the units edited), then A again.
        other = os.path.join(self.work, "lib-incremental-b")
        shutil.rmtree(other, ignore_errors=True)
        shutil.copytree(library, other, symlinks=True)
        units = sorted(os.path.join(d, f) for d, _, files in os.walk(other)
                       for f in files if f.endswith(".qr"))
        for path in units[::10]:
            with open(path, "a") as stream:
                stream.write("// library B\n")
        with open(os.path.join(other, ".quor-stdlib-fingerprint"), "w") as stream:
            stream.write("b" * 64 + "\n")
        results = []
        for root in (other, library):
            start = time.monotonic()
            out = run([self.tool, "--stdlib", root, "--cache-root", cache, "--json", "ensure"],
                      capture_output=True, text=True).stdout
            results.append((time.monotonic() - start, result_event(out)))
        (to_b, b_result), (back, a_result) = results
        log(f"  to B: {format_seconds(to_b)}, compiled {b_result.get('compiled')}; "
            f"back to A: {format_seconds(back)}, compiled {a_result.get('compiled')}, "
            f"reused {a_result.get('reused')}")
        compiled = a_result.get("compiled", -1)
        self.results["figures"]["8c"] = {
            "label": GOALS["8c"][0], "measured": compiled, "baseline": 0, "ratio": compiled,
            "goal": "== 0", "holds": compiled == 0, "count": True,
            "detail": f"back to A took {format_seconds(back)}; the switch to B compiled "
                      f"{b_result.get('compiled')} units",
        }
        shutil.rmtree(other, ignore_errors=True)
        shutil.rmtree(library, ignore_errors=True)
        shutil.rmtree(cache, ignore_errors=True)

        # 8d: from figure 4's runs when they were taken, else measured here.
        one = self.results["measurements"].get("cold quor-stdlib ensure --jobs 1", {}).get("median_s")
        two = self.results["measurements"].get("cold quor-stdlib ensure --jobs 2", {}).get("median_s")
        if one is None or two is None:
            self.figure4()
            one = self.results["measurements"]["cold quor-stdlib ensure --jobs 1"]["median_s"]
            two = self.results["measurements"]["cold quor-stdlib ensure --jobs 2"]["median_s"]
        self.figure("8d", one, two, one / two, "measured: 1 job, baseline: 2 jobs")

    def plot(self, rows, fit):
        data = os.path.join(self.work, "scaling.dat")
        with open(data, "w") as stream:
            for row in rows:
                stream.write(f"{row['units']} {row['median_s']:.4f} {row['peak_rss_kib'] / 1024:.1f}\n")
        output = os.path.abspath(self.args.plot or os.path.join(self.build, "scaling.png"))
        script = f"""
set terminal pngcairo size 900,540 font "sans,11"
set output {json.dumps(output)}
set title "Cold ensure of a generated library ({machine()['nproc']} hardware threads)"
set xlabel "units in the library"
set ylabel "wall time (s)"
set y2label "peak resident memory (MiB)"
set ytics nomirror
set y2tics
set key left top
set grid
set xrange [0:*]
set yrange [0:*]
set y2range [0:*]
f(x) = {fit['a']} + {fit['b']} * x
plot {json.dumps(data)} using 1:2 with linespoints pt 7 lw 2 title "wall time", \\
     f(x) with lines dt 2 lc rgb "gray" title "least-squares line", \\
     {json.dumps(data)} using 1:3 axes x1y2 with linespoints pt 5 lw 2 title "peak RSS"
"""
        run(["gnuplot"], input=script, text=True)
        log(f"  plot: {output}")
        self.results["plot"] = output

    # -- report ------------------------------------------------------------

    def report(self):
        rows = []
        log("\n" + "=" * 100)
        header = f"{'#':<3} {'figure':<58} {'measured':>10} {'baseline':>10} {'ratio':>7} {'goal':>7}  holds"
        log(header)
        log("-" * 100)
        for key in sorted(self.results["figures"], key=sort_key):
            f = self.results["figures"][key]
            unit = "x"
            if f.get("count"):
                unit = ""
                measured = f"{f['measured']} units"
                baseline = "-"
            else:
                measured = format_seconds(f["measured"])
                baseline = format_seconds(f["baseline"])
            line = (f"{key:<3} {f['label']:<58} {measured:>10} {baseline:>10} "
                    f"{f['ratio']:>6.2f}{unit} {f['goal']:>7}  {'yes' if f['holds'] else 'NO'}")
            log(line)
            if f["detail"]:
                log(f"{'':<4}{f['detail']}")
            label = f["label"].replace("|", "\\|")
            rows.append(f"| {key} | {label} | {measured} | {baseline} | {f['ratio']:.2f}x | "
                        f"{f['goal']} | {'yes' if f['holds'] else '**no**'} |")
        log("=" * 100)
        m = self.results["machine"]
        log(f"machine: {m['nproc']} x {m['cpu']}, Linux {m['kernel']}, temp fs {m['filesystem']}, "
            f"load {m['load_start'][0]:.2f} at start, {m['load_end'][0]:.2f} at end")
        with open(os.path.join(self.build, "bench-results.json"), "w") as stream:
            json.dump(self.results, stream, indent=2)
        with open(os.path.join(self.build, "bench-results.md"), "w") as stream:
            stream.write("| # | Figure | Measured | Baseline | Ratio | Goal | Holds |\n")
            stream.write("|---|---|---|---|---|---|---|\n")
            stream.write("\n".join(rows) + "\n")
        log(f"results: {os.path.join(self.build, 'bench-results.json')} and .md")


def result_event(text):
    """The "result" event of one `ensure --json` run, or {}."""
    for line in text.splitlines():
        try:
            event = json.loads(line)
        except ValueError:
            continue
        if isinstance(event, dict) and event.get("event") == "result":
            return event
    return {}


def count_builds(texts):
    builds = 0
    for text in texts:
        for line in text.splitlines():
            try:
                event = json.loads(line)
            except ValueError:
                continue
            if isinstance(event, dict) and event.get("event") == "result" and event.get("bootstrapped"):
                builds += 1
    return builds


def linear_fit(points):
    n = len(points)
    mx = sum(x for x, _ in points) / n
    my = sum(y for _, y in points) / n
    sxx = sum((x - mx) ** 2 for x, _ in points)
    b = sum((x - mx) * (y - my) for x, y in points) / sxx if sxx else 0.0
    a = my - b * mx
    total = sum((y - my) ** 2 for _, y in points)
    residual = sum((y - (a + b * x)) ** 2 for x, y in points)
    return {"a": a, "b": b, "r2": 1 - residual / total if total else 1.0}


def format_seconds(value):
    if value < 1e-6:
        return f"{value * 1e9:.0f} ns"
    if value < 1e-3:
        return f"{value * 1e6:.2f} us"
    if value < 1:
        return f"{value * 1e3:.1f} ms"
    return f"{value:.2f} s"


def sort_key(key):
    return (int(key.rstrip("abcd")), key)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build-dir", required=True, help="the Release build with the benchmarks")
    parser.add_argument("--ready-json", help="quor-bench-ready's JSON report (run it when absent)")
    parser.add_argument("--work-dir", default=os.path.join(tempfile.gettempdir(),
                                                           f"quor-bench-{os.getuid()}"))
    parser.add_argument("--plot", help="where to write the scaling plot (PNG)")
    parser.add_argument("--quick", action="store_true", help="fewer runs, no 100,000-unit tree")
    parser.add_argument("--only", default="1,2,3,4,5,6,7,8,9", help="comma-separated figures to run")
    parser.add_argument("--keep", action="store_true", help="keep the generated trees")
    args = parser.parse_args()

    os.makedirs(args.work_dir, exist_ok=True)
    bench = Bench(args)
    info = machine()
    bench.results["machine"] = {
        "nproc": info["nproc"], "cpu": info["cpu"], "kernel": info["kernel"],
        "filesystem": filesystem_of(args.work_dir), "load_start": info["load"],
    }
    m = bench.results["machine"]
    log(f"machine: {m['nproc']} x {m['cpu']}, Linux {m['kernel']}, "
        f"work dir {args.work_dir} on {m['filesystem']}, load {info['load'][0]:.2f}")
    wanted = args.only.split(",")
    try:
        for number in "123456789":
            if number in wanted:
                getattr(bench, f"figure{number}")()
    finally:
        bench.results["machine"]["load_end"] = os.getloadavg()
        if not args.keep:
            shutil.rmtree(args.work_dir, ignore_errors=True)
    bench.report()


if __name__ == "__main__":
    main()
