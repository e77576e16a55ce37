"""Types written in docstrings where the source has no annotation: reST and
Epydoc fields, numpydoc and Google sections; an annotation wins, and a type
that isn't one is passed over."""


class Node:
    pass


def Rest(name, pair, node, count):
    """Fields of reST.

    :param str name: the name
    :type pair: (str, int)
    :type node: :class:`Node`
    :type count: int or None
    :rtype: list of str
    """
    name  # expect: str
    pair[1]  # expect: int
    node  # expect: Node
    count  # expect: int | None
    return [name] * (count or 1)


def Epydoc(size):
    """
    @type size: float
    @rtype: str
    """
    size  # expect: float
    return str(size)


def Numpy(first, second, flag=False):
    """Sections of numpydoc.

    Parameters
    ----------
    first, second : int
        Two numbers.
    flag : bool, optional
        A switch.

    Returns
    -------
    float
        Their ratio.
    """
    second  # expect: int
    flag  # expect: bool
    return first / second


def Google(label, scale):
    """Sections of Google's style.

    Args:
        label (str): what to show.
        scale (float, optional): how large.

    Returns:
        str: the label scaled.
    """
    scale  # expect: float
    return label * int(scale)


def Annotated(value: int):
    """:type value: str"""
    value  # expect: int
    return value


def Unreadable(what):
    """:type what: def l(): pass"""
    return what


def _main():
    Rest("a", ("b", 1), Node(), 2)  # expect: list[str]
    Epydoc(1.5)  # expect: str
    Numpy(1, 2)  # expect: float
    Google("x", 2.0)  # expect: str
    Annotated(1)  # expect: int
    Unreadable(1)  # expect: int


if __name__ == "__main__":
    _main()
