"""What bench/run and bench/report are made of."""
