"""The detector from Python: acquisitions on the virtual sensor, progress, a stop from another
thread, and failures as DetectorError with the library's code and message."""
import threading
import time

import numpy as np
import pytest

import veltrano as vt


def wait_for(condition, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.002)
    return condition()


def test_flat_exposures_come_back_corrected_with_their_progress(sensor_dir):
    workdir = sensor_dir("SensorSize = 1000", "Scene = flat", "Dose = 20000")
    seen = []
    with vt.Detector(workdir) as detector:
        assert detector.state == vt.Online.ONLINE
        assert (detector.sensor_size, detector.image_size) == (1000, (1000, 1500))
        assert detector.serial_number != ""
        first = detector.acquire(0, 6, 100, progress=seen.append)
        # The handshake is reset for each acquisition, so a second one needs nothing more.
        second = detector.acquire(delay=0, trigger_mode=6, threshold=100)
        assert (detector.end_sign, detector.progress) == (1, 11)
    assert detector.closed
    for image in (first, second):
        assert image.dtype == np.float32 and image.shape == (1500, 1000)
        body = image[300:]  # below the cut corners
        assert body.mean() == pytest.approx(20000, rel=0.1)
        assert body.std() / body.mean() < 0.02  # gain-corrected, defects repaired
    assert not np.array_equal(first, second)  # two exposures, two noise patterns
    assert seen[0] == 6 and seen[-1] == 11 and seen == sorted(seen)


def test_a_second_thread_stops_the_acquisition_while_the_first_waits(sensor_dir):
    workdir = sensor_dir("SensorSize = 1000", "NoImage = 1")  # only a stop ends the wait
    with vt.Detector(workdir) as detector:
        ticks = []

        def stopper():
            # This thread runs while the acquiring thread waits: the GIL is free.
            assert wait_for(lambda: detector.progress == 6)
            ticks.append(detector.progress)
            detector.stop()

        thread = threading.Thread(target=stopper)
        thread.start()
        started = time.monotonic()
        with pytest.raises(vt.DetectorError) as raised:
            detector.acquire()
        thread.join()
        assert time.monotonic() - started < 5
        assert ticks == [6]
        error = raised.value
        assert (error.function, error.code, error.message, error.image) == ("AcqImageEx", -9, "Stop waitting!", None)
        assert str(error) == "AcqImageEx returned -9: Stop waitting!"
        assert detector.user_stop and detector.end_sign == 2
        # The stop stays until it is reset: the next acquisition gives no image at once.
        with pytest.raises(vt.DetectorError) as raised:
            detector.acquire()
        assert raised.value.code == 0 and raised.value.message.startswith("Stop operation!")
        detector.reset_user_stop()
        assert not detector.user_stop


def test_an_exception_in_the_progress_callback_stops_the_acquisition(sensor_dir):
    workdir = sensor_dir("SensorSize = 1000", "NoImage = 1")

    def progress(value):
        if value == 6:
            raise KeyError("enough")

    with vt.Detector(workdir) as detector:
        started = time.monotonic()
        with pytest.raises(KeyError):
            detector.acquire(progress=progress)
        assert time.monotonic() - started < 5
        assert detector.user_stop  # the acquisition was stopped, not left running
        assert detector.end_sign == 2


@pytest.mark.parametrize("lines, remove, step, code, message", [
    # Calibration missing: the acquisition refuses.
    (["SensorSize = 1000"], "VirtualSensor.gn", "acquire", -3, "No CaliFile!"),
    # A frame size the sensor table does not know: Connect refuses.
    (["Width = 1650", "Height = 1200"], None, "connect", -101, "Error: The SensorSize is not exist!"),
    # A setting that cannot be written: the image still comes, inside the exception (a flat
    # one: what it shows does not matter here).
    (["SensorSize = 1000", "Scene = flat", "FailSetAttr = 2510:7"], None, "acquire", -4, "the delay time could not be written (the image was still delivered)"),
])
def test_failures_raise_the_described_code_and_message(sensor_dir, lines, remove, step, code, message):
    workdir = sensor_dir(*lines)
    if remove:
        (workdir / "Correct" / "Default" / remove).unlink()
    detector = vt.Detector(workdir)
    detector.initialize()
    with pytest.raises(vt.DetectorError) as raised:
        detector.connect()
        detector.acquire(10, 6, 100)
    assert (raised.value.code, raised.value.message) == (code, message)
    assert detector.last_message == message
    assert (raised.value.image is not None) == (code == -4)
    detector.close()
    with pytest.raises(ValueError, match="closed"):
        detector.acquire()


def test_initialising_without_a_driver_library_in_the_path(tmp_path):
    detector = vt.Detector(tmp_path)
    # Reading the online state without a driver binding answers "unknown".
    assert detector.state == vt.Online.UNKNOWN
    with pytest.raises(vt.DetectorError) as raised:
        detector.connect()
    assert raised.value.code == -1
    detector.close()
    detector.close()  # closing twice is harmless
