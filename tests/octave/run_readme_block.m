function run_readme_block (code)
% Runs a README example in a workspace of its own (a function file of its
% own: the test's nested functions make their file's workspaces static).
  eval (code);
end
