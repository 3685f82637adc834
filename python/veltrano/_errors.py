"""The exceptions that veltrano raises for failures that the library reports."""


class VeltranoError(RuntimeError):
    """A library function returned a failure code.

    ``function`` names it, ``code`` is its result (the library's own code, or one of the
    ``VT_ERR_`` codes of the C interface) and ``message`` the one-line text about it.
    """

    def __init__(self, function: str, code: int, message: str = "") -> None:
        self.function = function
        self.code = code
        self.message = message or f"{function} returned {code}"
        super().__init__(self.message)


class DetectorError(VeltranoError):
    """A detector operation failed: ``code`` and ``message`` are the ones the library describes
    ("Stop waitting!" for -9, "No CaliFile!" for -3, ...). Codes -4 to -7 of an acquisition
    still deliver an image, which ``image`` then holds (else None)."""

    def __init__(self, function: str, code: int, message: str = "", image=None) -> None:
        self.image = image
        super().__init__(function, code, message)
        self.args = (f"{function} returned {code}: {self.message}",)

    def __str__(self) -> str:
        return self.args[0]
