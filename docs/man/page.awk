# What scdoc writes, without the paragraphs in which there is nothing: mandoc takes each for a fault.
/^\.P$/ { paragraph = 1; next }
{
  head = /^\.(SH|SS|TH|RS|RE|TP)/
  if (paragraph && !head && !behind_head) print ".P"
  print
  behind_head = head
  paragraph = 0
}
