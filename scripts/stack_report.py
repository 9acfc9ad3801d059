#!/usr/bin/env python3
"""Tells how much stack the library's functions take, out of GCC's call graphs (-fcallgraph-info=su).

Usage: stack_report.py FOLDER ENTRY CALLBACK...

FOLDER is searched for .ci files. ENTRY and CALLBACKs are names of functions: where a thread begins, and what
it may reach through pointers. Prints "key value" lines: the largest frame, and the deepest path below ENTRY.
Functions that can call each other in a circle count once each, all of them together: a bound as long as no
circle is gone round twice. The frames of the C library and of a process's own handlers are not among them. A
function whose frame has no bound is an error.
"""
import pathlib
import re
import sys

INDIRECT = "__indirect_call"


class Graph:
    def __init__(self, folder):
        self.frames = {}
        self.calls = {}
        for path in sorted(pathlib.Path(folder).rglob("*.ci")):
            self.read(path.read_text(encoding="utf-8"))

    def read(self, text):
        for title, label in re.findall(r'^node: \{ title: "([^"]+)" label: "([^"]*)"', text, re.M):
            frame = re.search(r"\\n(\d+) bytes \(([^)]*)\)", label)
            if not frame:
                continue
            if frame.group(2) == "dynamic":
                sys.exit(f"stack_report.py: no bound for the frame of {title}")
            self.frames[title] = int(frame.group(1))
        for source, target in re.findall(r'^edge: \{ sourcename: "([^"]+)" targetname: "([^"]+)"', text, re.M):
            self.calls.setdefault(source, set()).add(target)

    def find(self, name):
        mangled = f"{len(name)}{name}"
        found = [title for title in self.frames if title == name or mangled in title]
        if not found:
            sys.exit(f"stack_report.py: no function {name} in the call graphs")
        return found

    def components(self, start):
        """Tarjan's strongly connected components below `start`, callees before callers."""
        index, low, stack, on_stack, out = {}, {}, [], set(), []

        def visit(node):
            index[node] = low[node] = len(index)
            stack.append(node)
            on_stack.add(node)
            for callee in sorted(self.calls.get(node, ())):
                if callee not in index:
                    visit(callee)
                    low[node] = min(low[node], low[callee])
                elif callee in on_stack:
                    low[node] = min(low[node], index[callee])
            if low[node] == index[node]:
                component = set()
                while node not in component:
                    component.add(stack.pop())
                on_stack.difference_update(component)
                out.append(component)

        visit(start)
        return out

    def deepest(self, start):
        depth, owner = [], {}
        for component in self.components(start):
            below = [depth[owner[callee]] for node in component for callee in self.calls.get(node, ())
                     if callee not in component]
            for node in component:
                owner[node] = len(depth)
            depth.append(sum(self.frames.get(node, 0) for node in component) + max(below, default=0))
        return depth[owner[start]]


def main(folder, entry, *callbacks):
    graph = Graph(folder)
    if not graph.frames:
        sys.exit(f"stack_report.py: no call graphs below {folder}")
    largest = max(graph.frames, key=graph.frames.get)
    print(f"largest_frame {graph.frames[largest]}")
    print(f"# in {largest.rsplit(':', 1)[-1]}")
    graph.calls[INDIRECT] = {title for name in callbacks for title in graph.find(name)}
    print(f"service_stack {graph.deepest(graph.find(entry)[0])}")


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
