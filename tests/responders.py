"""For tests of what both responders have in common.

`with_both` runs a test with each of them: the fixture `lab` is then one of that responder, and
PATHS[responder] knows what it sends on its way: main_path.py, standard_path.py.
"""

import main_path
import pytest
import standard_path

PATHS = {"classic": main_path, "standard": standard_path}
RESPONDERS = tuple(PATHS)

with_both = pytest.mark.parametrize("responder", RESPONDERS)
