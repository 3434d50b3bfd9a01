#!/usr/bin/env python3
"""Line coverage of the code a datagram can reach, from the fuzz target's
coverage build: the lines of sp/, utils/ and unixmdc/ inside functions that
a request can run, leaving out start-up, the signal-driven dump, helpers
that nothing in the daemon calls, reply converters (the daemon never
converts a reply) and test hooks.
    scripts/fuzz-coverage.py BINARY PROFDATA
"""
import json
import os
import re
import subprocess
import sys

UNREACHABLE = re.compile(r"^(" + "|".join([
    # start-up, options, the listener socket and the loader
    r"Usage|startup|DgramServer|SetUpServer|ParseOptions|KestrixdMain|RequireForStartup",
    r"DumpDaemonState|LibraryDirectory|ServicePort|DGRAM_Init|makeListenerSocket",
    r"DGRAM_BindListener|PrimaryListener|DGRAM_CompareAddresses|CloseSocket",
    r"LAN_InitServer|LAN_RegisterMessageHandler|FSMDCSP_Init|ServiceProviderReady",
    r"InitDispatchList|InitLeaseList|MaxDgramFromText|OSL_SemCreate|OSL_SemCreateM",
    r"RegisterHandlers|ExportFieldNames",
    r"OSL_SemDestroy|OSL_SemDestroyM|OSL_CreateThread|OSL_GetEnv|OSL_GetProcessId",
    r"Low32|IsCandidate|ReadDirectory|Resolve|TryCandidate|FSMDCSP_LoadNextLibrary",
    # the lease purge thread runs by the clock, not by a request
    r"PurgeLeaseThread|PurgeLeaseList|Elapsed",
    # dumps reached by SIGUSR1 only, helpers without a caller, reply converters
    r"SP_LanDumpInfo|FSMDCSP_DumpKeyList|LAN_DumpInfo|LeaseCount|TrackerCounts",
    r"DumpTrackerList|LANSUP_PrintLanHeader|printFSUNI|printFSUNIBytes|fsunicpy",
    r"checkDataSizes|ksx_setLogLevel|ForceCore|SPSUP_TransLan\w+Resp|ConversionLimit",
    r"FSMDCSUP_Trans\w+|TransVolInfoWithin|TransMapInfoWithin|FSMDCSUP_DumpVolInfo",
    r"FSMDCSUP_DumpFSMapInfo|ksxmem_(walk|destroy|stats|gettag|realloc|setDbg|addmemory|check)",
    r"ksxmem_GetMemory_cb",
    # test hooks
    r"FailGetmem|\w+ForTesting",
]) + r")$")
FILES = re.compile(r"/(sp|utils|unixmdc)/[^/]+\.cc$")
# The operator's interfaces: the admin socket, metrics and the counters and
# timings behind them, which the fuzz target leaves off.
OPERATOR_FILES = re.compile(
    r"/(unixmdc/(admin_socket|metrics|library_timing)|sp/lease_admin|utils/kxstats)\.cc$")

binary, profdata = sys.argv[1], sys.argv[2]
export = json.loads(subprocess.run(
    ["llvm-cov", "export", binary, "-instr-profile=" + profdata],
    check=True, capture_output=True, text=True).stdout)["data"][0]

functions = export["functions"]
# Static functions are named "file.cc:mangled"; the base name is what the
# demangled name holds before its parameters, without scopes or templates.
names = subprocess.run(["c++filt"], input="\n".join(f["name"].split(":")[-1] for f in functions),
                       check=True, capture_output=True, text=True).stdout.splitlines()
reachable = {}  # file -> set of lines inside reachable functions
for f, name in zip(functions, names):
    plain = name.replace("(anonymous namespace)::", "")
    while "<" in plain:
        plain = re.sub(r"<[^<>]*>", "", plain)
    base = re.sub(r"\(.*", "", plain).split("::")[-1].split()[-1]
    region = f["regions"][0]  # the whole body
    # A compiler cache may have handed the compiler paths relative to the
    # build directory; llvm-cov show prints them normalised.
    filename = os.path.normpath(f["filenames"][region[5]])
    if (FILES.search(filename) and not OPERATOR_FILES.search(filename)
            and not UNREACHABLE.match(base) and "lambda" not in name):
        reachable.setdefault(filename, set()).update(range(region[0], region[2] + 1))

# Per-line execution counts as llvm-cov shows them ("  line|  count|source").
show = subprocess.run(["llvm-cov", "show", binary, "-instr-profile=" + profdata,
                       "-show-line-counts", "-use-color=0"],
                      check=True, capture_output=True, text=True).stdout
total = covered = 0
current, per_file = None, {}
for text in show.splitlines():
    if text.endswith(".cc:") and text.startswith("/"):
        current = text[:-1]
        continue
    m = re.match(r"\s*(\d+)\|\s*([\d.]+[kMG]?)\|", text)
    if current in reachable and m and int(m.group(1)) in reachable[current]:
        t, c = per_file.get(current, (0, 0))
        per_file[current] = (t + 1, c + (m.group(2) != "0"))
for filename in sorted(per_file):
    t, c = per_file[filename]
    total, covered = total + t, covered + c
    print(f"{FILES.search(filename).group(0)[1:]:28} {c:5} of {t:5} lines  {100.0 * c / t:5.1f}%")
print(f"{'reachable by a datagram':28} {covered:5} of {total:5} lines  {100.0 * covered / max(total, 1):5.1f}%")
