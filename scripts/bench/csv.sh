# shellcheck shell=bash
# Reading Google Benchmark's CSV output; sourced by the bench scripts.

# extract CSV NAME_PATTERN FIELDS...: prints the named fields (counters or
# standard columns) of the rows whose name matches, with the name's
# "<key>:<value>" parts available as key=value fields too.
extract() {
    local csv=$1 pattern=$2
    shift 2
    awk -F, -v pattern="$pattern" -v fields="$*" '
        /^name,/ {
            for (i = 1; i <= NF; i++) {
                field = $i
                gsub(/"/, "", field)
                column[field] = i
            }
            started = 1
            next
        }
        !started { next }
        {
            name = $1; gsub(/"/, "", name)
            if (name !~ pattern) next
            delete part
            n = split(name, pieces, "/")
            part["format"] = pieces[2]
            for (i = 1; i <= n; i++)
                if (split(pieces[i], kv, ":") == 2) part[kv[1]] = kv[2]
            split(fields, wanted, " ")
            line = ""
            for (i = 1; i in wanted; i++) {
                f = wanted[i]
                value = (f in part) ? part[f] : $(column[f])
                line = line (i > 1 ? " " : "") value
            }
            print line
        }' "$csv"
}
