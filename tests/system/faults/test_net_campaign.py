"""A short run of campaign.py, with another seed each time."""

import accounts  # noqa: F401
import harness
from campaign import Campaign  # noqa: F401

if __name__ == "__main__":
    harness.main()
