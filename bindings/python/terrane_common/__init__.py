"""TerraneCommon for Python: the offline data service, HTTP, logging, reachability, usage tokens,
URLs and the JSON/GeoJSON value model.

Importing the package puts the system log in force as the library's log sink."""

from . import _core
from ._core import *  # noqa: F401,F403
from ._core import Error  # noqa: F401

__all__ = [name for name in dir(_core) if not name.startswith("_")]


def _record(cls: type) -> None:
    """Gives a record class keyword construction and a readable repr over its `_fields`."""
    fields = cls._fields  # type: ignore[attr-defined]
    plain_init = cls.__init__

    def __init__(self, **kwargs):  # type: ignore[no-untyped-def]
        plain_init(self)
        for name, value in kwargs.items():
            if name not in fields:
                raise TypeError(f"{cls.__name__}() got an unexpected keyword argument '{name}'")
            setattr(self, name, value)

    def __repr__(self):  # type: ignore[no-untyped-def]
        body = ", ".join(f"{name}={getattr(self, name)!r}" for name in fields)
        return f"{cls.__name__}({body})"

    __init__.__doc__ = f"{cls.__name__}(*, {', '.join(fields)})"
    cls.__init__ = __init__  # type: ignore[misc]
    cls.__repr__ = __repr__  # type: ignore[assignment]


for _name in __all__:
    _value = getattr(_core, _name)
    if isinstance(_value, type) and hasattr(_value, "_fields"):
        _record(_value)
del _name, _value
