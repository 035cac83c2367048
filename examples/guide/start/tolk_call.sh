tolk call pipe:4001 greet you
