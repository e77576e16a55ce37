import sys

from pysource.cli import main

sys.exit(main())
