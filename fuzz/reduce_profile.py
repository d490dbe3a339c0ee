#!/usr/bin/env python3
"""Reduces a machine profile to a small one that the virtual controller still accepts.

usage: fuzz/reduce_profile.py PROFILE OUT [TVXCTL]

Removes list elements and entries of maps keyed by numbers (event texts by code, ...), one at
a time from the end, and keeps a removal when `tvxctl --machine OUT reset` still accepts the
profile. An element that is the only one of its kind in its list (its "record", "kind",
"format" or "event_reading_type") stays, and so do byte lists, so that every shape of entry
the profile has is still there. The fuzz target for profiles starts from such reductions: a
document of a few KiB explores the parser many times faster than the machines' own profiles
of 50 KiB, whose every section it keeps.
"""
import json
import os
import subprocess
import sys
import tempfile

KINDS = {'record', 'kind', 'format', 'event_reading_type'}


def main():
    src, out = sys.argv[1], sys.argv[2]
    tvxctl = sys.argv[3] if len(sys.argv) > 3 else 'build/tools/tvxctl/tvxctl'
    doc = json.load(open(src))
    work = tempfile.mkdtemp()
    env = dict(os.environ, TVX_IPMI_STATE_DIR=os.path.join(work, 'state'))
    trial = os.path.join(work, 'trial.json')

    def accepted():
        with open(trial, 'w') as f:
            f.write(json.dumps(doc, separators=(',', ':')))
        return subprocess.run([tvxctl, '--machine', trial, 'reset'], env=env, capture_output=True).returncode == 0

    if not accepted():
        sys.exit(f'{src}: not accepted as it stands')

    def containers(value, path=()):
        if isinstance(value, (list, dict)):
            yield path
            items = enumerate(value) if isinstance(value, list) else value.items()
            for key, inner in list(items):
                yield from containers(inner, path + (key,))

    def at(path):
        value = doc
        for key in path:
            value = value[key]
        return value

    def kind(value):
        if not isinstance(value, dict):
            return type(value).__name__
        return tuple(sorted((k, v) for k, v in value.items() if k in KINDS and isinstance(v, str)))

    changed = True
    while changed:
        changed = False
        for path in list(containers(doc)):
            try:
                c = at(path)
            except (KeyError, IndexError, TypeError):
                continue  # gone with an earlier removal
            if isinstance(c, list):
                if all(isinstance(x, int) for x in c):
                    continue
                for i in reversed(range(len(c))):
                    if len(c) <= 1:
                        break
                    if sum(1 for y in c if kind(y) == kind(c[i])) == 1:
                        continue
                    x = c.pop(i)
                    if accepted():
                        changed = True
                    else:
                        c.insert(i, x)
            elif (isinstance(c, dict) and len(c) > 2 and all(isinstance(x, dict) for x in c.values())
                  and all(any(ch.isdigit() for ch in k) for k in c)):
                for k in list(c)[::-1]:
                    if len(c) <= 1:
                        break
                    x = c.pop(k)
                    if accepted():
                        changed = True
                    else:
                        c[k] = x
    with open(out, 'w') as f:
        f.write(json.dumps(doc, separators=(',', ':')) + '\n')


if __name__ == '__main__':
    main()
