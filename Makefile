# The usual names of the scripts.
.PHONY: demo check
demo:
	scripts/demo
check:
	scripts/check
