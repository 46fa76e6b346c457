# Prints the coverage of each folder in src/, including its subfolders, from gcovr's CSV. The exit code is 1 below the
# goals.

BEGIN {
    FS = ","
    least_lines["src"] = 95
    least_branches["src"] = 85
    least_lines["src/DataLayer"] = 98
    printf "%-28s %18s %18s\n", "coverage", "lines", "branches"
}

# filename, line_total, line_covered, line_percent, branch_total, branch_covered, …
NR > 1 {
    for (folder = $1; sub("/[^/]*$", "", folder);) {
        lines[folder] += $2
        lines_run[folder] += $3
        branches[folder] += $5
        branches_run[folder] += $6
    }
}

function cell(run, all, least,    percentage) {
    percentage = all ? 100 * run / all : 100
    if (percentage >= least)
        return sprintf("%.1f %%", percentage)
    missed = 1
    return sprintf("%.1f %% < %d %%", percentage, least)
}

END {
    for (folder in lines)
        printf "%-28s %18s %18s\n", folder,
            cell(lines_run[folder], lines[folder], least_lines[folder]),
            cell(branches_run[folder], branches[folder], least_branches[folder]) | "sort"
    close("sort")
    exit missed
}
