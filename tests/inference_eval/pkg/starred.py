__all__ = ["public_fn", "PUBLIC"]

PUBLIC = "visible"
NOT_LISTED = 1


def public_fn() -> int:
    return 1


def hidden_fn() -> str:
    return ""
