// Colours and font of the charts: those that the style gives the page.
const contenderColours = 10;

export function readTheme(root) {
  const style = getComputedStyle(root);
  const colour = (name) => style.getPropertyValue(`--${name}`).trim();
  return {
    text: colour("text"),
    background: colour("background"),
    grid: colour("grid"),
    strongLine: colour("strong-line"),
    bound: colour("bound"),
    met: colour("met"),
    missed: colour("missed"),
    font: style.fontFamily,
    contenders: Array.from({ length: contenderColours }, (_, index) => colour(`contender-${index}`)),
  };
}
