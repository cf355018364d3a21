"""What the end-to-end tests stand on: one idea a file."""
