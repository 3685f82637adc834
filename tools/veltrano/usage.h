// Help texts of the program and its subcommands.
#pragma once

namespace vcli {

inline const char kMainUsage[] =
    "usage: veltrano <command> [options]\n"
    "\n"
    "Intraoral X-ray sensor driver and image processing from the command line.\n"
    "\n"
    "commands:\n"
    "  demo       acquire one exposure from the built-in virtual sensor and process it\n"
    "  acquire    take one exposure from the driver library the Veltrano library finds\n"
    "  process    run a post-processing chain on a 16-bit PNG or a raw image file\n"
    "  calibrate  make the sensor's gain and defect files from its own flat exposures\n"
    "  info       show the state, serial number, USB information and size of the sensor\n"
    "  studio     tune a post-processing chain on a picture in the browser\n"
    "\n"
    "Run 'veltrano <command> --help' for the options of a command.\n"
    "Exit codes: 0 done, 1 failure, 2 usage error, 130 exposure stopped with Ctrl-C.\n";

inline const char kDemoUsage[] =
    "usage: veltrano demo [--out DIR] [--chain FILE]\n"
    "\n"
    "Sets up a virtual sensor of the largest size (2000: 1300 x 1800 pixels) in DIR/sensor,\n"
    "writes its calibration, takes one exposure of the phantom scene, runs the chain and writes\n"
    "  DIR/corrected.png  the corrected exposure (16-bit grayscale)\n"
    "  DIR/processed.png  after the post-processing chain (16-bit grayscale)\n"
    "  DIR/preview.png    both side by side, for viewing (8-bit)\n"
    "The library's console lines go to DIR/veltrano.log.\n"
    "\n"
    "  --out DIR     output folder (default demo-out)\n"
    "  --chain FILE  chain file (default: chains/default.chain shipped with the program)\n";

inline const char kAcquireUsage[] =
    "usage: veltrano acquire --workdir DIR [--delay MS] [--trigger-mode 6|7]\n"
    "                        [--threshold N] [--chain FILE] [--verbose] --out FILE\n"
    "\n"
    "Takes one exposure from the driver library that the Veltrano library loads (FpdSys), with\n"
    "the calibration below DIR/Correct/Default, and writes the corrected image (processed by\n"
    "the chain when one is given). FILE ending in .png gets a 16-bit grayscale PNG; any other\n"
    "name a raw file of 32-bit floats (element code 8, no header). Ctrl-C stops the wait.\n"
    "\n"
    "  --workdir DIR       the sensor's work folder\n"
    "  --delay MS          delay time (default 0)\n"
    "  --trigger-mode 6|7  trigger mode (default 6)\n"
    "  --threshold N       trigger threshold (default 100)\n"
    "  --chain FILE        post-processing chain to run on the image\n"
    "  --verbose           show the library's console lines (default: DIR/veltrano.log)\n"
    "  --out FILE          output image\n";

inline const char kProcessUsage[] =
    "usage: veltrano process --chain FILE --in IMAGE --out IMAGE\n"
    "                        [--width W --height H --type CODE [--header BYTES]]\n"
    "\n"
    "Runs a post-processing chain on a 16-bit grayscale PNG, or on a headerless raw file when\n"
    "its layout is given. Raw element codes: 0 int8, 1 uint8, 2 int16, 3 uint16, 4 int32,\n"
    "5 uint32, 6 int64, 7 uint64, 8 float32, 9 float64 (little-endian); values are clamped to\n"
    "0..65535 and rounded. An output ending in .png gets a 16-bit PNG, any other a raw file of\n"
    "32-bit floats (element code 8). A failed run leaves an existing output file untouched.\n";

inline const char kCalibrateUsage[] =
    "usage: veltrano calibrate --workdir DIR [--levels 1|4] [--exposures N] [--yes] [--verbose]\n"
    "       veltrano calibrate --workdir DIR --virtual [--frames 1|4]\n"
    "\n"
    "Calibrates the sensor of the work folder DIR through the driver library that the Veltrano\n"
    "library loads: flat exposures (nothing in the beam) at one dose or at four rising doses,\n"
    "N of each (default 4 levels of 8), then one check exposure. Each exposure must be a usable\n"
    "flat (not saturated, not too dark, uniform, at the dose of the one before) or the run stops.\n"
    "Only a run that succeeds replaces the gain and defect files below DIR/Correct/Default; the\n"
    "previous ones are kept beside them with \".previous\" appended. A real sensor asks the\n"
    "operator to set the source before each level and press Enter (--yes: go on at once); the\n"
    "virtual sensor sets its own dose. Ctrl-C stops the run and changes nothing. Prints the\n"
    "defects found by kind and the flat field's variation before and after correction, and\n"
    "writes DIR/calibration-report.png (check exposure raw and corrected, and the defect map).\n"
    "\n"
    "  --levels 1|4     doses to calibrate at (default 4)\n"
    "  --exposures N    exposures per level, 2 to 64 (default 8)\n"
    "  --yes            do not wait for the operator before each level\n"
    "  --verbose        show the library's console lines (default: DIR/veltrano.log)\n"
    "  --virtual        instead, have the virtual sensor write its own calibration files (one\n"
    "                   gain frame, or four with --frames 4); DIR is created if needed and the\n"
    "                   size comes from DIR/VirtualSensor.ini\n";

inline const char kInfoUsage[] =
    "usage: veltrano info --workdir DIR [--verbose]\n"
    "\n"
    "Opens the sensor and shows its online state, serial number, USB information and size.\n";

}  // namespace vcli
