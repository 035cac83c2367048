# Checks the Mermaid blocks of a page against the part of the grammar that the pages use. Prints each
# line that is not in it, with the page's name, and fails.

function complain(what) {
  print page ":" NR ": " what ": " $0
  failed = 1
}

# Text that no renderer reads as syntax.
function is_plain(text) { return text != "" && text !~ /[;#{}<>"\\]/ }

# An arrow's ends, declared before.
function known(name) { return name in participants }

function sequence(line,   parts, at, names) {
  if (line ~ /^participant [A-Za-z]+( as .+)?$/) {
    split(line, parts, " ")
    participants[parts[2]] = 1
    sub(/^participant [A-Za-z]+( as )?/, "", line)
    return line == "" || is_plain(line)
  }
  if (line ~ /^(alt|opt|loop|par) .+$/) { ++depth; return is_plain(line) }
  if (line ~ /^(else|and) .+$/) return depth > 0 && is_plain(line)
  if (line == "end") return depth-- > 0
  at = index(line, ": ")
  if (at == 0 || !is_plain(substr(line, at + 2))) return 0
  line = substr(line, 1, at - 1)
  if (line ~ /^Note over [A-Za-z]+(,[A-Za-z]+)?$/) {
    sub(/^Note over /, "", line)
    split(line, names, ",")
    return known(names[1]) && (!(2 in names) || known(names[2]))
  }
  if (line !~ /^[A-Za-z]+(->>|-->>|-x)[A-Za-z]+$/) return 0
  split(line, names, /-+(>>|x)/)
  return known(names[1]) && known(names[2])
}

# NODE, NODE[text], or NODE["text"].
function is_node(text) {
  return text ~ /^[A-Za-z]+(\[([A-Za-z0-9 ,:'._-]+|"[^"]+")\])?$/ && text !~ /^(end|graph|subgraph)/
}

function flowchart(line,   at, ends, arrow) {
  if (line ~ /^subgraph [A-Za-z]+(\[.+\])?$/) {
    ++depth
    sub(/^subgraph /, "", line)
    return is_node(line)
  }
  if (line == "end") return depth-- > 0
  if (line ~ /^direction (LR|TB)$/) return depth > 0
  arrow = "(<-->|<==>|-->|==>|---)([|][A-Za-z0-9 ,:'._-]+[|])?"
  if (line !~ (" " arrow " ")) return is_node(line)
  match(line, " " arrow " ")
  return is_node(substr(line, 1, RSTART - 1)) && is_node(substr(line, RSTART + RLENGTH))
}

function states(line,   at) {
  at = index(line, ": ")
  if (at > 0) {
    if (!is_plain(substr(line, at + 2))) return 0
    line = substr(line, 1, at - 1)
  }
  return line ~ /^([a-z_]+|\[\*\]) --> ([a-z_]+|\[\*\])$/
}

/^ *```/ {
  if (kind != "" && kind != "other" && depth != 0) complain("an open block at the end of the diagram")
  if (inside && kind == "first") complain("an empty diagram")
  kind = (inside || $0 != "```mermaid") ? "" : "first"
  if ($0 ~ /mermaid/ && !inside && kind == "") complain("a diagram begins with its own line")
  inside = !inside
  depth = 0
  split("", participants)
  next
}
kind == "" || /^ *$/ { next }
{ line = $0; sub(/^ +/, "", line) }
kind == "first" {
  if (line == "sequenceDiagram") kind = "sequence"
  else if (line ~ /^flowchart (LR|TB)$/) kind = "flowchart"
  else if (line == "stateDiagram-v2") kind = "states"
  else { complain("an unknown kind of diagram"); kind = "other" }
  next
}
kind == "sequence" && !sequence(line) { complain("not understood") }
kind == "flowchart" && !flowchart(line) { complain("not understood") }
kind == "states" && !states(line) { complain("not understood") }
END {
  if (inside) complain("a fenced block that does not end")
  exit failed
}
