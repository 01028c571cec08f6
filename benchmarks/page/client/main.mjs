// Draws the page's charts from the results that it carries.
import {
  BarController,
  BarElement,
  CategoryScale,
  Chart,
  Legend,
  LinearScale,
  LineController,
  LineElement,
  LogarithmicScale,
  PointElement,
  Tooltip,
} from "chart.js";
import { listRatioAims } from "../source/aims.mjs";
import { ContenderColours } from "./colours.mjs";
import { growthChart, latencyChart } from "./curves.mjs";
import { figureChart, processorChart, ratesChart } from "./bars.mjs";
import { ratiosChart } from "./ratios.mjs";
import { rowLabels } from "./row_labels.mjs";
import { spreads } from "./spreads.mjs";
import { readTheme } from "./theme.mjs";

Chart.register(BarController, BarElement, CategoryScale, Legend, LinearScale, LineController, LineElement);
Chart.register(LogarithmicScale, PointElement, Tooltip, rowLabels, spreads);

const results = JSON.parse(document.getElementById("results").textContent);
const drawn = [];

const configurations = {
  ratios: (theme) => ratiosChart(listRatioAims(results), theme),
  rates: (theme, index, colours) => ratesChart(results.works[index], theme, colours),
  processor: (theme, index, colours) => processorChart(results.works[index], theme, colours),
  latency: (theme, index, colours) => latencyChart(results.works[index], theme, colours),
  growth: (theme, index, colours) => growthChart(results.works[index], theme, colours),
  figure: (theme, index) => figureChart(results.figures[index], theme),
};

function draw(canvas, theme, colours) {
  const { chart: kind, index } = canvas.dataset;
  const configuration = configurations[kind](theme, Number(index), colours);
  configuration.options.devicePixelRatio = Math.max(2, window.devicePixelRatio);
  drawn.push(new Chart(canvas, configuration));
}

function drawAll() {
  drawn.splice(0).forEach((chart) => chart.destroy());
  const theme = readTheme(document.documentElement);
  const colours = new ContenderColours(results.works, theme);
  Object.assign(Chart.defaults, {
    color: theme.text,
    borderColor: theme.grid,
    animation: false,
    maintainAspectRatio: false,
  });
  Chart.defaults.font.family = theme.font;
  document.querySelectorAll("canvas[data-chart]").forEach((canvas) => draw(canvas, theme, colours));
}

// The style gives charts their height by how many rows they have.
for (const canvas of document.querySelectorAll('canvas[data-chart]:not([data-rows="0"])')) {
  canvas.parentElement.classList.add("has-rows");
  canvas.parentElement.style.setProperty("--rows", canvas.dataset.rows);
}

// Charts are pictures by the time a page is printed: drawn anew, in the colours and width of paper.
function setOnPaper(onPaper) {
  document.documentElement.classList.toggle("on-paper", onPaper);
  drawAll();
}

matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawAll);
addEventListener("beforeprint", () => setOnPaper(true));
addEventListener("afterprint", () => setOnPaper(false));
drawAll();
