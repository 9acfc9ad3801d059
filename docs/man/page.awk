# What scdoc writes, as mandoc wants it: no paragraphs in which there is nothing, no long lines of running text,
# a title in capitals.
/^\.P$/ { paragraph = 1; next }
/^\.TH / { $2 = toupper($2) }
/^\.(nf|TS)/ { literal = 1 }
/^\.(fi|TE)/ { literal = 0 }
{
  head = /^\.(SH|SS|TH|RS|RE|TP)/
  if (paragraph && !head && !behind_head) print ".P"
  if (literal || /^[.']/) print
  else fold()
  behind_head = head
  paragraph = 0
}

# A word that would be a request at the front of a line stays in its line.
function fold(  words, count, line, i) {
  count = split($0, words, " ")
  line = words[1]
  for (i = 2; i <= count; i++) {
    if (length(line) + 1 + length(words[i]) > 80 && words[i] !~ /^[.']/) {
      print line
      line = words[i]
    } else line = line " " words[i]
  }
  print line
}
