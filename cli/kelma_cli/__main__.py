import sys

from kelma_cli.main import main

sys.exit(main())
