"""Veltrano on numpy arrays: the processing functions, the post-processing chain, the parameter
records, INI access and the detector.

The functions keep the library's names and take numpy arrays: the dtype picks the pixel type
(uint8, uint16, int16, float32, int32, float64) and the shape gives the size. Each returns a new
array, or writes into ``out=`` (which may be the source itself). Arrays of the wrong dtype,
shape or layout raise TypeError or ValueError before the library is called; a failure code of
the library raises VeltranoError. See docs/python.md.
"""
import enum as _enum
import os as _os

from ._errors import DetectorError, VeltranoError
from ._veltrano import *  # noqa: F401,F403  (the functions and records)
from ._veltrano import __version__, _DetectorHandle


class Online(_enum.IntEnum):
    """The detector's online state."""

    OFFLINE = 0
    ONLINE = 1
    STANDBY = 2
    UNKNOWN = 3


class Detector:
    """One sensor, reached through its driver library (the virtual sensor in tests and demos).

    As a context manager it initialises and connects on entry and disconnects and releases the
    driver on exit::

        with veltrano.Detector(workdir) as detector:
            image = detector.acquire(delay=0, trigger_mode=6, threshold=100)

    A failing operation raises DetectorError with the library's code and message.
    """

    def __init__(self, workdir="") -> None:
        self._handle = _DetectorHandle(_os.fsdecode(workdir))

    # Lifecycle ---------------------------------------------------------------------------

    def __enter__(self) -> "Detector":
        try:
            self.initialize()
            self.connect()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exc_info) -> None:
        self.close()

    def initialize(self, path=None) -> None:
        """Loads the driver and creates its instance, in the work directory or in ``path``."""
        if path is None:
            self._checked("Initialize", self._live().initialize())
        else:
            self._checked("InitializeByPath", self._live().initialize_by_path(_os.fsdecode(path)))

    def connect(self) -> None:
        """Connects the sensor and learns its size."""
        self._checked("Connect", self._live().connect())

    def disconnect(self) -> None:
        self._live().disconnect()

    def deinit(self) -> None:
        """Releases the driver; initialize() may follow."""
        self._live().deinit()

    def reset(self) -> None:
        self._live().reset()

    def close(self) -> None:
        """Disconnects, releases the driver and the handle; the object is unusable afterwards."""
        if not self._handle.closed:
            self._handle.disconnect()
            self._handle.close()

    @property
    def closed(self) -> bool:
        return self._handle.closed

    # Queries and settings ----------------------------------------------------------------

    @property
    def state(self) -> Online:
        return Online(self._live().state())

    @property
    def serial_number(self) -> str:
        return self._live().serial_number()

    @property
    def usb_info(self) -> str:
        return self._live().usb_info()

    @property
    def sensor_size(self) -> int:
        """The sensor size code (1000, 1500, 2000), or -1 while unknown."""
        return self._live().sensor_size()

    def judge_sensor_size(self) -> int:
        return self._live().judge_sensor_size()

    @property
    def image_size(self):
        """(width, height) of the connected sensor's images, or None while unknown."""
        return self._live().image_size()

    def set_delay_time(self, delay: int) -> None:
        self._checked("SetDelayTime", self._live().set_delay_time(delay))

    def set_trigger_mode(self, mode: int) -> None:
        self._checked("SetTriggerMode", self._live().set_trigger_mode(mode))

    def set_trigger_threshold(self, threshold: int) -> None:
        self._checked("SetTriggerThreshold", self._live().set_trigger_threshold(threshold))

    @property
    def last_message(self) -> str:
        """The message of the last operation that failed ("" after one that succeeded)."""
        return self._live().last_message()

    # Acquisition -------------------------------------------------------------------------

    def acquire(self, delay: int = 0, trigger_mode: int = 6, threshold: int = 100, progress=None):
        """One exposure: a float32 array (height, width) of corrected 16-bit sensor values.

        Blocks until the image has arrived; other Python threads run meanwhile, and any of them
        may call stop(). ``progress`` is called on this thread with each new progress value it
        sees (6 armed ... 11 handed over; it looks every 20 ms). The end sign and progress are reset before the exposure,
        the user stop is not: after stop(), call reset_user_stop() before the next one.
        Raises DetectorError with the acquisition's code and message when no image came, or
        when a setting could not be written (codes -4 to -7, the image then in ``image``).
        """
        code, image, message = self._live().acquire(delay, trigger_mode, threshold, progress)
        if code != 0:
            raise DetectorError("AcqImageEx", code, message, image)
        if image is None:
            raise DetectorError("AcqImageEx", code, message or "no image was delivered")
        return image

    def stop(self) -> None:
        """Ends a pending acquisition at once (it raises DetectorError with code -9)."""
        self._live().stop()

    @property
    def progress(self) -> int:
        return self._live().progress()

    @progress.setter
    def progress(self, value: int) -> None:
        self._live().set_progress(value)

    @property
    def end_sign(self) -> int:
        return self._live().end_sign()

    @end_sign.setter
    def end_sign(self, value: int) -> None:
        self._live().set_end_sign(value)

    @property
    def user_stop(self) -> bool:
        return bool(self._live().user_stop())

    def reset_user_stop(self) -> None:
        self._live().reset_user_stop()

    # ------------------------------------------------------------------------------------

    def _live(self) -> _DetectorHandle:
        if self._handle.closed:
            raise ValueError("the detector is closed")
        return self._handle

    def _checked(self, function: str, code: int) -> None:
        if code != 0:
            raise DetectorError(function, code, self._handle.last_message())

    def __repr__(self) -> str:
        if self._handle.closed:
            return "<veltrano.Detector (closed)>"
        return f"<veltrano.Detector sensor_size={self.sensor_size} progress={self.progress}>"
