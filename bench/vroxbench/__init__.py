"""The benchmark: what is compared (contenders), what is measured (scenarios), where (cell), and the tables."""
