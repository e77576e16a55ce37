"""Speed of the symbol vocabulary's hot operations, side by side with the
plain Python that a scanner would otherwise run.  Prints the time per call of
each and the ratio; asserts nothing."""

import timeit

from pysource import symbolinfo as si

COMPOUND = b";".join([
    si.BuildDefInfoStr(si.kUnboundMethodPrefix, "C.f|1", "[T]", "(self, a: Dict[str, int] = {';': 1})",
                       "List[T]", ["staticmethod"]),
    si.kSetPrefix + b"12",
    si.kTypeHintPrefix + b"Optional[Tuple[int, str]]",
    si.PrefixWithLocationAndScope(si.BuildLiteralInfo(b"str", None), None, "C"),
])


def python_kind(ibytes):
    if ibytes[:1] != b":" or len(ibytes) < 2 or ibytes[1] == 0:
        return si.kPlainEquivKind
    return ibytes[1:2]


def python_split(text, sep=b";"):
    # The reference: a level-zero split that skips brackets and quoted strings.
    parts, depth, start, i, n = [], 0, 0, 0, len(text)
    while i < n:
        c = text[i:i + 1]
        if c in b"([{":
            depth += 1
        elif c in b")]}":
            depth -= 1
        elif c in b"'\"":
            end = text.find(c, i + 1)
            i = n if end < 0 else end
        elif c == sep and depth == 0:
            parts.append(text[start:i])
            start = i + 1
        i += 1
    parts.append(text[start:])
    return parts


def per_call(stmt, number=200000):
    return min(timeit.repeat(stmt, number=number, repeat=3)) / number * 1e9


def main():
    assert python_split(COMPOUND) == si.NonNestedSplit(COMPOUND, b";")
    rows = [
        ("GetInfoBytesKind", lambda: si.GetInfoBytesKind(COMPOUND), lambda: python_kind(COMPOUND)),
        ("NonNestedSplit", lambda: si.NonNestedSplit(COMPOUND, b";"), lambda: python_split(COMPOUND)),
        ("UnpackDefInfoStr", lambda: si.UnpackDefInfoStr(COMPOUND), None),
        ("DescribeInfo", lambda: si.DescribeInfo(COMPOUND), None),
    ]
    print("%-18s %12s %12s %8s" % ("operation", "ns/call", "python ns", "ratio"))
    for name, ours, peer in rows:
        ours_ns = per_call(ours)
        if peer is None:
            print("%-18s %12.0f" % (name, ours_ns))
            continue
        peer_ns = per_call(peer)
        print("%-18s %12.0f %12.0f %8.1f" % (name, ours_ns, peer_ns, peer_ns / ours_ns))


if __name__ == "__main__":
    main()
