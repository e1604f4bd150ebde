"""The `shapewiener` command of an installed package: runs the command line
program built with the package (shapewiener/bin/shapewiener), so it has the
same commands, options and bits as the C++ build's."""

import os
import sys
from pathlib import Path


def main():
    program = Path(__file__).resolve().parent / "bin" / "shapewiener"
    if not os.access(program, os.X_OK):
        sys.exit(f"shapewiener: the command line program is missing from the package ({program})")
    os.execv(program, [str(program)] + sys.argv[1:])


if __name__ == "__main__":
    main()
