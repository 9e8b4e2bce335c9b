# What became of the calls of one run of scripts/failover-test, from
#
#   call TIME LINE NUMBER sent|acknowledged
#   file NUMBER            a call file on either node
#   journal NUMBER         a line in either node's journal
#   connected TIME PORT ADDRESS
#
# with -v fault=TIME, when it happened, -v from=TIME, when the way back began, and -v end=TIME, when
# the stations were stopped. Prints, separated by tabs: seconds from `from` until the slowest line is
# acknowledged again, or "never"; the longest time since `fault` that a line was not; acknowledged
# calls; those of them without file and journal, on all lines and on the worst one; those with two;
# changes of the connected node on the line with most of them; how often both were connected to a
# line, of all looks at it.

# A call a second, and two for an attempt that fails.
BEGIN {
    INTERRUPTED = 2.5
    FS = "[ \t]+"
    OFS = "\t"
}

$1 == "call" && $5 == "acknowledged" {
    line_of[$4] = $3
    if ($2 > fault) {
        pass($3, $2)
    }
    last[$3] = $2
}
$1 == "call" { lines[$3] }
$1 == "file" { files[$2]++ }
$1 == "journal" { entries[$2]++ }

$1 == "connected" {
    if ($2 > fault) {
        look($3, $2, $4)
    }
    looked_at[$3] = $2
    holder[$3] = $4
}

function look(port, time, node) {
    if (time != looked_at[port]) {
        looks++
    } else if (node != holder[port]) {
        both++
    }
    if (holder[port] != "" && node != holder[port]) {
        changes[port]++
    }
}

function pass(line, time) {
    gap = time - last[line]
    longest = gap > longest ? gap : longest
    if (gap > INTERRUPTED && time > from) {
        back = time - from > back ? time - from : back
    }
}

END {
    for (line in lines) {
        silent = end - last[line]
        longest = silent > longest ? silent : longest
        never = never || silent > INTERRUPTED + 1
    }
    for (number in line_of) {
        acknowledged++
        if (!(number in files) && !(number in entries)) {
            lost++
            lost_on[line_of[number]]++
        }
        twice += files[number] > 1 || entries[number] > 1
    }
    for (line in lost_on) {
        worst = lost_on[line] > worst ? lost_on[line] : worst
    }
    for (port in changes) {
        most = changes[port] > most ? changes[port] : most
    }
    print (never ? "never" : sprintf("%.1f", back)), sprintf("%.1f", longest), acknowledged + 0,
        lost + 0, worst + 0, twice + 0, most + 0, both + 0 "/" looks + 0
}
