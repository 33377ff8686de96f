# Reads Google Benchmark JSON (one key per line, as the library writes it) and
# prints the table of ratios against the baselines measured in the same run.
# Medians are used when the run had repetitions, else the single run. All
# times are CPU time: on a shared, noisy machine wall time measures the
# neighbours as much as the code.
#
# With -v curves=DIR it also writes the data files of the cost curves there.

function num(line) {
    sub(/^[^:]*:[ \t]*/, "", line)
    sub(/,[ \t]*$/, "", line)
    gsub(/"/, "", line)
    return line + 0
}
function str(line) {
    sub(/^[^:]*:[ \t]*"/, "", line)
    sub(/",?[ \t]*$/, "", line)
    return line
}
function scale(unit) {
    return unit == "s" ? 1e9 : unit == "ms" ? 1e6 : unit == "us" ? 1e3 : 1
}
function have(n) { return (n in t) }
# CPU nanoseconds of one benchmark iteration.
function ns(n) {
    if (!have(n)) { missing[n] = 1; return 0 }
    return t[n]
}
function fmt(v) {
    if (v >= 1e9) return sprintf("%.2f s", v / 1e9)
    if (v >= 1e6) return sprintf("%.2f ms", v / 1e6)
    if (v >= 1e3) return sprintf("%.2f us", v / 1e3)
    return sprintf("%.1f ns", v)
}
function ratio(a, b) { return b > 0 ? sprintf("%.2f", a / b) : "n/a" }
function row(what, ours, base, r, note) {
    printf("| %-52s | %10s | %10s | %6s | %-22s |\n", what, ours, base, r, note)
}
function head(title, c1, c2, c3, c4) {
    if (c1 == "") { c1 = "ours"; c2 = "baseline"; c3 = "ratio"; c4 = "target" }
    printf("\n**%s**\n\n", title)
    printf("| %-52s | %10s | %10s | %6s | %-22s |\n", "measure", c1, c2, c3, c4)
    printf("|%s|%s|%s|%s|%s|\n", "------------------------------------------------------",
           "------------", "------------", "--------", "------------------------")
}

/"name":/ {
    name = str($0)
    kind = ""
    if (name ~ /_median$/) { sub(/_median$/, "", name); kind = "median" }
    else if (name ~ /_(mean|stddev|cv)$/) { kind = "skip" }
    else { kind = "single" }
    next
}
/"cpu_time":/ { cpu = num($0); next }
/"heap_per_device":/ { if (kind != "skip") heap[name] = num($0); next }
/"time_unit":/ {
    if (kind == "skip") next
    v = cpu * scale(str($0))
    if (kind == "median" || !(name in median_seen)) t[name] = v
    if (kind == "median") median_seen[name] = 1
    next
}

END {
    split("10 100 1000 4000", F, " ")
    split("1 16 256 1024", D, " ")

    head("Value-line conversion, mixed types (ours: tarvik_csv_to_event; baseline: memchr split + from_chars)")
    for (i = 1; i <= 4; ++i) {
        f = F[i]
        o = ns("BM_ConvertLine/fields:" f); b = ns("BM_BaselineConvert/fields:" f)
        row(f " fields", fmt(o), fmt(b), ratio(o, b), f == 1000 ? "<= 1.5" : "")
    }
    o = ns("BM_NaiveConvert/fields:1000"); b = ns("BM_BaselineConvert/fields:1000")
    row("1000 fields, string stream + strtoull/strtod (naive)", fmt(o), fmt(b), ratio(o, b), "for scale")

    head("Service-mode pass, per device (baseline: bare open/pread/close + baseline conversion)")
    for (i = 1; i <= 4; ++i) {
        f = F[i]
        o = ns("BM_ServicePass/fields:" f "/devices:16") / 16
        b = ns("BM_BaselinePass/fields:" f "/devices:16") / 16
        row(f " fields, 16 devices", fmt(o), fmt(b), ratio(o, b), f == 1000 ? "<= 2" : "")
    }
    for (i = 1; i <= 4; ++i) {
        d = D[i]
        if (d == 16) continue
        o = ns("BM_ServicePass/fields:100/devices:" d) / d
        b = ns("BM_BaselinePass/fields:100/devices:" d) / d
        row("100 fields, " d " devices", fmt(o), fmt(b), ratio(o, b), "")
    }
    o = ns("BM_BareRead/fields:1000/devices:16") / 16
    row("bare open/pread/close alone, 1000 fields", fmt(o), "", "", "")

    head("write_events, per event (baseline: memcpy of 16-byte header + record)")
    for (s = 1024; s <= 65536; s *= 64) {
        for (i = 1; i <= 4; ++i) {
            d = D[i]
            for (small = 0; small <= 1; ++small) {
                b = ns("BM_MemcpyEvents/devices:" d "/event_bytes:" s "/small_buffer:" small) / d
                o = ns("BM_WriteEvents/devices:" d "/event_bytes:" s "/small_buffer:" small) / d
                what = sprintf("%d KiB events, %d devices, %s buffer", s / 1024, d,
                               small ? "8-event" : "large")
                note = s == 1024 ? "<= 3" : sprintf("memcpy bw share %.0f%%", o > 0 ? 100 * b / o : 0)
                row(what, fmt(o), fmt(b), ratio(o, b), note)
            }
        }
    }
    c = ns("BM_WallClockRead")
    row("wall clock read (one per block, by the serializer)", fmt(c), "", "", "")
    o = ns("BM_WriteEvents/devices:16/event_bytes:1024/small_buffer:0") / 16
    b = ns("BM_MemcpyEvents/devices:16/event_bytes:1024/small_buffer:0") / 16
    row("1 KiB events, 16 devices, less the clock read", fmt(o - c), fmt(b), ratio(o - c, b), "")

    head("Dictionary (baseline: std::unordered_map<std::string, std::string>)")
    split("1000 100000 1000000", K, " ")
    for (i = 1; i <= 3; ++i) {
        k = K[i]
        o = ns("BM_DictGet/keys:" k) / 4096; b = ns("BM_UnorderedMapFind/keys:" k) / 4096
        row("vyr_dict_get, " k " keys", fmt(o), fmt(b), ratio(o, b), k >= 100000 ? "<= 1.3" : "")
    }
    for (i = 1; i <= 3; ++i) {
        k = K[i]
        o = ns("BM_DictGet/keys:" k) / 4096; b = ns("BM_DictBareProbe/keys:" k) / 4096
        row("vyr_dict_get vs the same probe inline, " k " keys", fmt(o), fmt(b), ratio(o, b), "nothing on top: ~1")
    }
    for (i = 1; i <= 3; ++i) {
        k = K[i]
        o = ns("BM_DictAdd/keys:" k) / k; b = ns("BM_UnorderedMapInsert/keys:" k) / k
        row("vyr_dict_add, " k " keys (per key)", fmt(o), fmt(b), ratio(o, b), "")
    }

    head("Linearity (cost per unit at the large size / at the small size)", "ours", "baseline", "", "")
    o1 = ns("BM_ServicePass/fields:100/devices:1"); o2 = ns("BM_ServicePass/fields:100/devices:1024") / 1024
    b1 = ns("BM_BaselinePass/fields:100/devices:1"); b2 = ns("BM_BaselinePass/fields:100/devices:1024") / 1024
    row("pass per device, 1024 vs 1 device", ratio(o2, o1), ratio(b2, b1), "", "flat: ~1")
    o1 = ns("BM_WriteEvents/devices:1/event_bytes:1024/small_buffer:0")
    o2 = ns("BM_WriteEvents/devices:1024/event_bytes:1024/small_buffer:0") / 1024
    b1 = ns("BM_MemcpyEvents/devices:1/event_bytes:1024/small_buffer:0")
    b2 = ns("BM_MemcpyEvents/devices:1024/event_bytes:1024/small_buffer:0") / 1024
    row("write_events per event, 1024 vs 1 device", ratio(o2, o1), ratio(b2, b1), "", "flat: ~1")
    o1 = ns("BM_WriteEvents/devices:1/event_bytes:1024/small_buffer:1")
    o2 = ns("BM_WriteEvents/devices:1024/event_bytes:1024/small_buffer:1") / 1024
    b1 = ns("BM_MemcpyEvents/devices:1/event_bytes:1024/small_buffer:1")
    b2 = ns("BM_MemcpyEvents/devices:1024/event_bytes:1024/small_buffer:1") / 1024
    row("  same, 8-event buffer (cursor resumes)", ratio(o2, o1), ratio(b2, b1), "", "flat: ~1")
    o1 = ns("BM_ConvertLine/fields:10") / 10; o2 = ns("BM_ConvertLine/fields:4000") / 4000
    b1 = ns("BM_BaselineConvert/fields:10") / 10; b2 = ns("BM_BaselineConvert/fields:4000") / 4000
    row("conversion per field, 4000 vs 10 fields", ratio(o2, o1), ratio(b2, b1), "", "flat: ~1")
    o1 = ns("BM_ServicePass/fields:10/devices:16") / 160; o2 = ns("BM_ServicePass/fields:4000/devices:16") / 64000
    row("pass per field, 4000 vs 10 fields", ratio(o2, o1), "", "", "read cost amortised")

    head("Once per initialization (no baseline)", "time", "", "", "")
    split("1 16 254", T, " ")
    for (i = 1; i <= 3; ++i)
        row("schema identifier (pretty JSON + MD5), " T[i] " x 100-field types",
            fmt(ns("BM_SchemaId/types:" T[i])), "", "", sprintf("%s per type", fmt(ns("BM_SchemaId/types:" T[i]) / T[i])))
    row("TarvikFormatParser::parse + typing, 1000 columns", fmt(ns("BM_ParserParse/fields:1000")), "", "", "")
    row("type system serialize + deserialize, 1 type", fmt(ns("BM_TypeSystemRoundTrip/types:1")), "", "", "")
    row("type system serialize + deserialize, 16 types", fmt(ns("BM_TypeSystemRoundTrip/types:16")), "", "", "")

    head("Memory per device, 64 devices after passes (heap in use, all of it written)", "heap", "", "", "")
    n_mem = 0
    for (n in heap) mem_names[++n_mem] = n
    # Sorted by name so the rows keep their order from run to run.
    for (i = 1; i <= n_mem; ++i)
        for (j = i + 1; j <= n_mem; ++j)
            if (mem_names[j] < mem_names[i]) { tmp = mem_names[i]; mem_names[i] = mem_names[j]; mem_names[j] = tmp }
    for (i = 1; i <= n_mem; ++i) {
        n = mem_names[i]
        split(n, parts, "/")
        sub(/fields:/, "", parts[2])
        what = parts[2] " fields, " (parts[4] == "parsers:1" ? "with what initialization leaves" : "collection state only")
        row(what, sprintf("%.1f KiB", heap[n] / 1024), "", "", "")
    }

    nm = 0
    for (n in missing) { if (!nm) printf("\nmissing from this run:"); printf(" %s", n); nm = 1 }
    if (nm) printf("\n")

    if (curves != "") {
        f1 = curves "/pass_vs_columns.dat"
        printf("# fields ours_us_per_device baseline_us_per_device bare_read_us_per_device\n") > f1
        for (i = 1; i <= 4; ++i)
            printf("%d %.3f %.3f %.3f\n", F[i], ns("BM_ServicePass/fields:" F[i] "/devices:16") / 16e3,
                   ns("BM_BaselinePass/fields:" F[i] "/devices:16") / 16e3,
                   ns("BM_BareRead/fields:" F[i] "/devices:16") / 16e3) > f1
        f2 = curves "/write_vs_devices.dat"
        printf("# devices ours_large_ns ours_small_ns memcpy_large_ns memcpy_small_ns (per 1 KiB event)\n") > f2
        for (i = 1; i <= 4; ++i)
            printf("%d %.2f %.2f %.2f %.2f\n", D[i],
                   ns("BM_WriteEvents/devices:" D[i] "/event_bytes:1024/small_buffer:0") / D[i],
                   ns("BM_WriteEvents/devices:" D[i] "/event_bytes:1024/small_buffer:1") / D[i],
                   ns("BM_MemcpyEvents/devices:" D[i] "/event_bytes:1024/small_buffer:0") / D[i],
                   ns("BM_MemcpyEvents/devices:" D[i] "/event_bytes:1024/small_buffer:1") / D[i]) > f2
        f3 = curves "/convert_vs_fields.dat"
        printf("# fields ours_ns_per_field baseline_ns_per_field naive_ns_per_field\n") > f3
        for (i = 1; i <= 4; ++i)
            printf("%d %.2f %.2f %.2f\n", F[i], ns("BM_ConvertLine/fields:" F[i]) / F[i],
                   ns("BM_BaselineConvert/fields:" F[i]) / F[i],
                   ns("BM_NaiveConvert/fields:" F[i]) / F[i]) > f3
        f4 = curves "/pass_vs_devices.dat"
        printf("# devices ours_us_per_device baseline_us_per_device (100 fields)\n") > f4
        for (i = 1; i <= 4; ++i)
            printf("%d %.3f %.3f\n", D[i], ns("BM_ServicePass/fields:100/devices:" D[i]) / D[i] / 1e3,
                   ns("BM_BaselinePass/fields:100/devices:" D[i]) / D[i] / 1e3) > f4
    }
}
