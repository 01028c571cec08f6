# Reports C++ functions of more than 70 lines, counted from the line of the opening brace to that of
# the closing one: "file:line: function of N lines". A brace opens a function when the statement in
# front of it has a parameter list and the brace is not already inside a function.

FNR == 1 {
  depth = 0        # open braces
  functionDepth = 0  # depth of the function's own brace; 0 outside
  statement = ""
  inComment = 0
}

{
  line = $0
  if (line ~ /^[ \t]*#/) next
  gsub(/\\./, "", line)
  gsub(/'[^']*'/, "", line)
  gsub(/"[^"]*"/, "", line)
  sub(/\/\/.*/, "", line)
  while (length(line) > 0) {
    place = match(line, /[{};]/)
    if (place == 0) {
      statement = statement " " line
      break
    }
    statement = statement substr(line, 1, place - 1)
    mark = substr(line, place, 1)
    line = substr(line, place + 1)
    if (mark == "{") {
      ++depth
      if (functionDepth == 0 && opens_function(statement)) {
        functionDepth = depth
        firstLine = FNR
      }
    } else if (mark == "}") {
      if (depth == functionDepth && functionDepth > 0) {
        size = FNR - firstLine + 1
        if (size > 70) printf "%s:%d: function of %d lines\n", FILENAME, firstLine, size
        functionDepth = 0
      }
      --depth
    }
    statement = ""
  }
}

function opens_function(text) {
  if (text ~ /^[ \t]*(template[ \t]*<[^{]*>[ \t]*)?(class|struct|union|enum|namespace|extern)[ \t]/) return 0
  return text ~ /\(/ && text !~ /=[ \t]*$/
}
