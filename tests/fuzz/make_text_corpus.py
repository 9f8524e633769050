#!/usr/bin/env python3
"""Seeds for the harness of textual programs, from the committed bundles: make_text_corpus.py <folder>"""

import re
import sys
from pathlib import Path

PACKAGES = Path(__file__).resolve().parent.parent / "fixtures" / "packages"
RECORD = re.compile(r"tensor<\w+, \[[^]]*\]>\((BLOBFILE\(.*?, offset = [^(]*\()\d+")


def main():
    corpus = Path(sys.argv[1])
    corpus.mkdir(parents=True, exist_ok=True)
    for bundle in sorted(PACKAGES.glob("*.mlmodelc")):
        text = (bundle / "model.mil").read_text()
        # The one record that the harness has.
        (corpus / bundle.stem).write_text(RECORD.sub(r"tensor<fp16, [2]>(\g<1>64", text))
    (corpus / "blocks").write_text(
        'program(1.3) { func f<ios26>(state<tensor<fp16, [1]>> s, int32 k) { // remark\n'
        'fp32 a, list<string, ?> b = cond<ios18>(pred = (k, bool(true)))[name = string("\\x41\\u00e9\\n")] '
        "{ } -> (k), { }; write(x = s); } -> (a, b); }"
    )


if __name__ == "__main__":
    main()
