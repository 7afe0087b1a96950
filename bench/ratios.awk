# Gathers the ratios a benchmark program reports, as "program<TAB>measure<TAB>result" lines:
#  1. lines it prints itself, "A / B = 0.41 (2.4x faster)" or "A / B: 1.04x (target ...)", and
#     frame rates ("... per second: 590 ...");
#  2. benchmarks that carry a "ratio=" counter (operation over reference, measured in one run);
#  3. unless it printed lines of its own, pairs of the remaining rows: a reference benchmark (its name says opencv, plain, scalar or
#     reference) against the nearest operation above it with the same arguments.
# Usage: awk -v prog=NAME -f ratios.awk LOG
function clean(n) { sub(/\/iterations:[0-9]+/, "", n); sub(/\/(real|manual)_time$/, "", n); return n }
function ns(v, unit) {
    return v * (unit == "s" ? 1e9 : unit == "ms" ? 1e6 : unit == "us" ? 1e3 : 1)
}
function args(n) { return (match(n, /\/.*/) ? substr(n, RSTART) : "") }
function base(n) { sub(/\/.*/, "", n); return n }
/ \/ / || /per second/ {
    if (match($0, /[:=][ \t]*[0-9.]+/)) {
        measure = substr($0, 1, RSTART - 1); value = substr($0, RSTART + 1)
        gsub(/^[ \t]+|[ \t]+$/, "", measure); gsub(/[ \t]+/, " ", measure)
        gsub(/^[ \t]+|[ \t]+$/, "", value)
        printf "%s\t%s\t%s\n", prog, measure, value; printed = own = 1
        next
    }
}
/^BM_/ && NF >= 6 && $3 ~ /^(ns|us|ms|s)$/ {
    name = clean($1)
    if (match($0, / ratio=[0-9.]+/)) {
        value = substr($0, RSTART + 7, RLENGTH - 7)
        extra = match($0, / cpu_ratio=[0-9.]+/) ? ", cpu " substr($0, RSTART + 11, RLENGTH - 11) : ""
        printf "%s\t%s\t%s\n", prog, name, value extra; printed = 1
        next
    }
    rows++; row_name[rows] = name; row_time[rows] = ns($2, $3)
}
END {
    if (!own)
        for (i = 1; i <= rows; i++) {
            if (tolower(base(row_name[i])) !~ /opencv|plain|scalar|reference/) continue
            for (j = i - 1; j >= 1; j--)
                if (tolower(base(row_name[j])) !~ /opencv|plain|scalar|reference/ &&
                    args(row_name[j]) == args(row_name[i])) {
                    printf "%s\t%s / %s\t%.3f\n", prog, row_name[j], row_name[i], row_time[j] / row_time[i]
                    printed = 1
                    break
                }
        }
    if (!printed) printf "%s\t%s\t\n", prog, "(no ratio reported)"
}
