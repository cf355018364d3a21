"""What the end-to-end tests stand on: one idea a file."""

import pytest

# A failed assertion in here is then told with its values, like one in a test.
pytest.register_assert_rewrite("support.program")
