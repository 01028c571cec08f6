# Sums what llvm-cov exports in the format of lcov: a line per folder of the library, and the total,
# to the screen; "file:line: what: text" for each line and each way of a condition that no test took
# to the file `list`. The folders of hosts are left out. Exits 1 when the total is under leastLines
# or leastBranches percent.

BEGIN { printf "" >list }

/^SF:/ {
  file = substr($0, 4)
  sub("^" root "/", "", file)
  counts = file ~ /^(source|public_include)\// && file !~ /\/(Linux|Win|Sim)\//
  folder = file
  sub(/\/[^\/]*$/, "", folder)
  if (!counts) next
  if (!(folder in known)) {
    known[folder] = 1
    folders[++folderCount] = folder
  }
  read_text()
}

# DA:line,times
counts && /^DA:/ {
  split(substr($0, 4), part, ",")
  ++lines[folder]
  if (part[2] > 0) ++linesReached[folder]
  else report(part[1], "line")
}

# BRDA:line,condition within the line,way (even: it holds, odd: it does not),times
counts && /^BRDA:/ {
  split(substr($0, 6), part, ",")
  ++branches[folder]
  if (part[4] != "-" && part[4] > 0) ++branchesReached[folder]
  else report(part[1], "condition " (part[2] + 1) " never " (part[3] % 2 == 0 ? "true" : "false"))
}

END {
  for (i = 1; i <= folderCount; ++i) print_row(folders[i])
  for (i = 1; i <= folderCount; ++i) {
    lines["total"] += lines[folders[i]]
    linesReached["total"] += linesReached[folders[i]]
    branches["total"] += branches[folders[i]]
    branchesReached["total"] += branchesReached[folders[i]]
  }
  print_row("total")
  if (lines["total"] == 0 || branches["total"] == 0) exit 1
  exit !(percent(linesReached["total"], lines["total"]) >= leastLines &&
         percent(branchesReached["total"], branches["total"]) >= leastBranches)
}

function read_text(    number, line) {
  delete text
  while ((getline line <(root "/" file)) > 0) text[++number] = line
  close(root "/" file)
}

function report(line, what,    code) {
  code = text[line]
  sub(/^[ \t]+/, "", code)
  printf "%s:%d: %s: %s\n", file, line, what, code >list
}

function percent(part, whole) { return whole == 0 ? 100 : 100 * part / whole }

function print_row(name) {
  printf "%-24s lines %5d of %5d, %5.1f %%   branches %5d of %5d, %5.1f %%\n", name,
    linesReached[name], lines[name], percent(linesReached[name], lines[name]),
    branchesReached[name], branches[name], percent(branchesReached[name], branches[name])
}
