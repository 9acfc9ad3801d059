#!/usr/bin/env python3
"""Lists the log rows of the library's sources: one call site's row a line, with a tab between the fields.

  logids.py ROOT TABLE SOURCE...      writes TABLE: logid, level, module, biz_name, file, function, text

A row is a constant of type Message or Trace; its function is the first that uses it. A row that cannot be read
is an error.
"""
import re
import sys


# The line on which a function or a member begins.
HEAD = re.compile(r'^ {0,2}(?:[A-Za-z_][^\n;=(]*?[\s*&:])?(~?[A-Za-z_]\w*)\((?![^\n]*;$)', re.M)
KEYWORDS = {'if', 'for', 'while', 'switch', 'return', 'sizeof', 'static_assert'}


def fail(text):
    sys.exit('logids.py: ' + text)


def split(arguments):
    """Splits at the commas outside of texts."""
    return [part.strip() for part in re.findall(r'((?:"(?:[^"\\]|\\.)*"|[^",])+)', arguments)]


def value(part, names):
    texts = re.findall(r'"((?:[^"\\]|\\.)*)"', part)
    if texts:
        return ''.join(texts)
    return names[part] if part in names else fail('what is ' + part)


def function_of(name, body):
    """The last function that begins before the first use."""
    uses = [use.start() for use in re.finditer(r'\b%s\b' % name, body)]
    if len(uses) < 2:
        fail(name + ' is used nowhere')
    heads = [head.group(1) for head in HEAD.finditer(body)
             if head.end() <= uses[1] and head.group(1) not in KEYWORDS and not head.group(1).isupper()]
    return heads[-1] if heads else fail('no function has ' + name)


def rows_of(path, body, names):
    for name, arguments in re.findall(r'constexpr Message (k\w+)\{(.*?)\};', body, re.S):
        level, logid, module, biz_name, text = split(arguments)
        yield (int(logid), level[-1], value(module, names), value(biz_name, names), path, function_of(name, body),
               value(text, names))
    for name, arguments in re.findall(r'constexpr Trace (k\w+)\{(.*?)\};', body, re.S):
        module, function, enter, enter_biz, leave, leave_biz = split(arguments)
        where = (path, function_of(name, body))
        for logid, biz_name, verb in ((enter, enter_biz, 'entering'), (leave, leave_biz, 'leaving')):
            yield (int(logid), 'T', value(module, names), value(biz_name, names), *where,
                   '%s %s. called by nil.' % (verb, value(function, names)))


def main(root, table, paths):
    bodies = {path: open(root + '/' + path, encoding='utf-8').read() for path in paths}
    constant = re.compile(r'constexpr char (k\w+)\[\] =\s*"([^"]*)";')
    shared = dict(pair for path in paths if path.endswith('.h') for pair in constant.findall(bodies[path]))
    rows = []
    for path in paths:
        names = dict(shared, **dict(constant.findall(bodies[path])))
        found = list(rows_of(path, bodies[path], names))
        if len(found) < len(re.findall(r'constexpr Message k|constexpr Trace k', bodies[path])):
            fail('a row of %s cannot be read' % path)
        rows += found
    with open(table, 'w', encoding='utf-8') as out:
        for row in sorted(rows):
            out.write('%d\t%s\t%s\t%s\t%s\t%s\t%s\n' % row)


if __name__ == '__main__':
    main(sys.argv[1], sys.argv[2], sys.argv[3:])
