# Sums the verbose output of ctest. Prints
#   COUNT <passed> <failed> <skipped>
#   FAILED <what>      for every failure
#   SKIPPED <what>     for every test that did not run, with its reason where one was printed
#   DISABLED <what>
# A ctest entry counts as the tests that its own summary lines name ("[  PASSED  ] 3 tests."). One
# without a summary counts as one test. One that ctest reports as failed although no summary says so
# (a crash, a time-out, a leak found at exit) counts as one failure more.

# "12: text": a line that test 12 printed.
/^[0-9]+: / {
  id = $1
  sub(/:$/, "", id)
  text = $0
  sub(/^[0-9]+: /, "", text)
  if (text ~ /^Test command:/) next
  if (match(text, /\[  PASSED  \] [0-9]+ tests?\./)) {
    passes[id] += number(text)
    summary[id] = 1
  } else if (match(text, /\[  FAILED  \] [0-9]+ tests?/)) {
    fails[id] += number(text)
    summary[id] = 1
  } else if (match(text, /\[  SKIPPED \] [0-9]+ tests?/)) {
    skips[id] += number(text)
    summary[id] = 1
  } else if (text ~ /^\[  FAILED  \] .*\([0-9]+ ms\)$/) {
    failures[++failureCount] = name_in(text)
    failureId[failureCount] = id
  } else if (text ~ /^not ok/) {
    failures[++failureCount] = text
    failureId[failureCount] = id
  } else if (text ~ /: Skipped$/) {
    reasonNext[id] = 1
    next
  } else if (text ~ /^\[  SKIPPED \] .*\([0-9]+ ms\)$/) {
    skipped[++skippedCount] = name_in(text) reason[id]
    skippedId[skippedCount] = id
    reason[id] = ""
  } else if (text ~ /^skipped - /) {
    sub(/^skipped - /, "", text)
    skipped[++skippedCount] = text
    skippedId[skippedCount] = id
  } else if (id in reasonNext) {
    reason[id] = " (" text ")"
  } else if (text ~ /YOU HAVE [0-9]+ DISABLED TEST/) {
    sub(/^ +/, "", text)
    disabled[++disabledCount] = text
  }
  delete reasonNext[id]
  next
}

# " 3/12 Test  #3: Name ..........   Passed    0.05 sec"
/^ *[0-9]+\/[0-9]+ +Test +#[0-9]+: / {
  id = $0
  sub(/^[^#]*#/, "", id)
  title = id
  sub(/:.*/, "", id)
  sub(/^[0-9]+: /, "", title)
  sub(/ \.\..*/, "", title)
  state[id] = $0 ~ /   Passed / ? "passed" : ($0 ~ /Skipped|Disabled/ ? "skipped" : "failed")
  titles[id] = title
  order[++count] = id
}

function number(text) {
  sub(/.*\] /, "", text)
  return text + 0
}

function name_in(text) {
  sub(/^\[[^]]*\] /, "", text)
  sub(/ \([0-9]+ ms\)$/, "", text)
  return text
}

# The ctest entry in front of the name of one of its tests.
function from(id) {
  return id in titles ? titles[id] ": " : ""
}

END {
  for (i = 1; i <= count; ++i) {
    id = order[i]
    passed += passes[id]
    failed += fails[id]
    skippedTests += skips[id]
    if (state[id] == "failed" && fails[id] == 0) {
      ++failed
      failures[++failureCount] = titles[id] " (ended abnormally)"
    } else if (!(id in summary)) {
      if (state[id] == "passed") ++passed
      if (state[id] == "skipped") {
        ++skippedTests
        skipped[++skippedCount] = titles[id]
      }
    }
  }
  if (count == 0) {
    ++failed
    failures[++failureCount] = "no test was run"
  }
  print "COUNT", passed + 0, failed + 0, skippedTests + 0
  for (i = 1; i <= failureCount; ++i) print "FAILED", from(failureId[i]) failures[i]
  for (i = 1; i <= skippedCount; ++i) print "SKIPPED", from(skippedId[i]) skipped[i]
  for (i = 1; i <= disabledCount; ++i) print "DISABLED", disabled[i]
}
